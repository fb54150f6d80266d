// Symbol substitution over every text of the model that may hold a
// placeholder: the supplier header, attribute values, source formats and
// property values.

#include "model/CXmlFile.h"
#include "model/Utf8Log.h"
#include "support/CLog.h"

namespace kivreg {

bool CXmlFile::replaceSymbols() {
    forgetBodySizes();
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
        *m_log << u" units in " << Utf8(where()) << u"." << endlog;
        return true;
    };
    const std::pair<std::string*, std::string_view> header[] = {
        {&m_supplierName, ms_attrSupplierName},
        {&m_supplierVendor, ms_attrSupplierVendor},
        {&m_supplierVersion, ms_attrSupplierVersion},
        {&m_modelVersion, ms_attrModelVersion}};
    for (const auto& [text, name] : header) {
        sym.replaceSymbolsInPlace(*text, budget);
        if (stopped([&] { return "the supplier header, " + std::string(name); })) return false;
    }

    // A text is copied only when it holds a placeholder, and handed back only
    // when that changed it; so a default that holds one becomes a value.
    std::string work;
    auto replaceCopy = [&](std::string_view text, auto set) {
        if (text.find(PSymbols::symbol_start) == std::string_view::npos) return;
        work.assign(text);
        if (sym.replaceSymbolsInPlace(work, budget)) set(work);
    };
    auto quoted = [](std::string_view s) {
        std::string q;
        q.reserve(s.size() + 2);
        return q.append(1, '"').append(s).append(1, '"');
    };
    auto replaceAttributes = [&](CBaseElem& elem, const std::string& owner) {
        for (CAttr& a : elem.attributes()) {
            replaceCopy(a.getValue(), [&](const std::string& v) { a.setValue(v); });
            if (stopped([&] { return owner + ", attribute " + quoted(a.getName()); })) return false;
        }
        return true;
    };
    CTextStore& texts = m_store->texts;
    for (CGroup& g : m_groups) {
        const std::string group = "group " + quoted(g.getName());
        if (!replaceAttributes(g, group)) return false;
        for (CClass& c : g.classes()) {
            const std::string cls = group + ", class " + quoted(c.getName());
            if (!replaceAttributes(c, cls)) return false;
            for (CInst& inst : c.instances()) {
                for (CProp& prop : inst.properties()) {
                    replaceCopy(prop.getSourceformat(), [&](const std::string& v) {
                        prop.setSourceformat(texts.intern(v));
                    });
                    for (std::string_view& v : prop.values()) {
                        if (budget.stopped != PSymbols::Budget::Stop::None) break;
                        replaceCopy(v, [&](const std::string& text) { v = texts.keep(text); });
                    }
                    if (stopped([&] {
                            return cls + ", instance " + quoted(inst.getId()) + ", property " +
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
