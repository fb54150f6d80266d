// Symbol substitution over every text of the model that may hold a
// placeholder: the supplier header, attribute values, source formats and
// property values.

#include "model/CXmlFile.h"
#include "support/CCConv.h"
#include "support/CLog.h"

namespace kivreg {

bool CXmlFile::replaceSymbols() {
    *m_log << timestamp << u"Replacing symbols in XML document." << endlog;
    if (m_symbols.getSymbolCount() == 0) return true;
    const PSymbols& sym = m_symbols;
    PSymbols::Budget budget;
    // Names the text a bound stopped in; the location is built only then.
    auto stopped = [&](auto&& where) {
        if (budget.stopped == PSymbols::Budget::Stop::None) return false;
        *m_log << timestamp << u"Symbol substitution stopped: ";
        if (budget.stopped == PSymbols::Budget::Stop::Text) {
            *m_log << u"a text would exceed " << PSymbols::MAX_TEXT_UNITS;
        } else {
            *m_log << u"the document would grow by more than " << PSymbols::MAX_DOCUMENT_GROWTH;
        }
        *m_log << u" units in " << where() << u"." << endlog;
        return true;
    };
    const std::pair<std::u16string*, std::string_view> header[] = {
        {&m_supplierName, ms_attrSupplierName},
        {&m_supplierVendor, ms_attrSupplierVendor},
        {&m_supplierVersion, ms_attrSupplierVersion},
        {&m_modelVersion, ms_attrModelVersion}};
    for (const auto& [text, name] : header) {
        sym.replaceSymbolsInPlace(*text, budget);
        if (stopped([&] { return u"the supplier header, " + CCConv::fromUTF8Str(name); }))
            return false;
    }

    // A text is copied only when it holds a placeholder, and handed back only
    // when that changed it; so a default that holds one becomes a value.
    auto replaceCopy = [&](std::u16string_view text, auto set) {
        if (text.find(PSymbols::symbol_start) == std::u16string::npos) return;
        std::u16string v(text);
        if (sym.replaceSymbolsInPlace(v, budget)) set(std::move(v));
    };
    auto quoted = [](const std::u16string& s) { return u"\"" + s + u"\""; };
    auto replaceAttributes = [&](CBaseElem& elem, const std::u16string& owner) {
        for (CAttr& a : elem.attributes()) {
            replaceCopy(a.getValue(), [&](std::u16string v) { a.setValue(std::move(v)); });
            if (stopped([&] { return owner + u", attribute " + quoted(a.getName()); }))
                return false;
        }
        return true;
    };
    for (CGroup& g : m_groups) {
        const std::u16string group = u"group " + quoted(g.getName());
        if (!replaceAttributes(g, group)) return false;
        for (CClass& c : g.classes()) {
            const std::u16string cls = group + u", class " + quoted(c.getName());
            if (!replaceAttributes(c, cls)) return false;
            for (CInst& inst : c.instances()) {
                for (CProp& prop : inst.properties()) {
                    replaceCopy(prop.getSourceformat(), [&](std::u16string v) {
                        prop.setSourceformat(&m_texts->intern(v));
                    });
                    for (auto v = prop.getValueChangeIterator();
                         v != prop.getValueChangeEnd() &&
                         budget.stopped == PSymbols::Budget::Stop::None;
                         ++v)
                        replaceCopy(*v, [&](std::u16string text) { *v = m_texts->keep(text); });
                    if (stopped([&] {
                            return cls + u", instance " + quoted(inst.getId()) + u", property " +
                                   quoted(prop.getName());
                        }))
                        return false;
                }
            }
        }
    }
    return true;
}

}  // namespace kivreg
