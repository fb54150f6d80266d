// Loading the supplier's document into the model, symbol replacement and
// reference validation.

#include "model/CXmlFile.h"

#include <cstdio>
#include <exception>
#if defined(__GLIBC__)
#include <malloc.h>
#endif
#include <unordered_set>

#include "runtime/XmlAdapter.h"
#include "runtime/textconv.h"
#include "support/CCConv.h"
#include "support/CLog.h"

namespace kivreg {

namespace {

using rt::XmlElement;

std::u16string text16(const std::string& utf8) {
    return utf8.empty() ? std::u16string() : CCConv::fromUTF8Str(std::string_view(utf8));
}

std::u16string attr16(const XmlElement& e, std::string_view name) {
    return text16(e.attribute(name));
}

std::u16string str(std::u16string_view v) {
    return std::u16string(v);
}

// The vocabulary's names are ASCII.
std::u16string widen(std::string_view ascii) {
    return std::u16string(ascii.begin(), ascii.end());
}

// An attribute that admits only the given values.
CAttr choice(std::string_view name, std::u16string value, std::u16string_view defaultValue,
             std::initializer_list<std::u16string_view> allowed) {
    CAttr a(widen(name), std::move(value), str(defaultValue));
    for (std::u16string_view v : allowed) a.addAllowedValue(str(v));
    return a;
}

CAttr flag(const XmlElement& e, std::string_view name, std::u16string_view defaultValue) {
    return choice(name, attr16(e, name), defaultValue,
                  {CXmlFile::TRUE_VALUE, CXmlFile::FALSE_VALUE});
}

CAttr clean(const XmlElement& e) {
    return choice(CXmlFile::ms_attrClean, attr16(e, CXmlFile::ms_attrClean), CXmlFile::CLEAN_NONE,
                  {CXmlFile::CLEAN_NONE, CXmlFile::CLEAN_LONE, CXmlFile::CLEAN_ALL});
}

CAttr anyValue(const XmlElement& e, std::string_view name) {
    return CAttr(widen(name), attr16(e, name));
}

// Standard input as bytes. The last character is appended once more: the
// reading loop this replaces noticed the end only after storing the read
// character again, and documents on standard input are known to carry that.
std::string readStdinBytes() {
    std::string data;
    char buf[1 << 16];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, stdin)) > 0) data.append(buf, n);
    if (data.empty()) return data;
    size_t start = data.size() - 1;
    while (start > 0 && data.size() - start < 4 &&
           (static_cast<unsigned char>(data[start]) & 0xC0) == 0x80)
        --start;
    if ((static_cast<unsigned char>(data[start]) & 0xC0) == 0x80) start = data.size() - 1;
    data.append(data, start, std::string::npos);
    return data;
}

std::string fileNameBytes(const std::u16string& fileName) {
    std::string out;
    rt::utf16ToUtf8Lenient(fileName, out);
    return out;
}

}  // namespace

// ---- construction and loading

namespace {

// Runs a load, taking any failure that escapes it as a failed load.
template <typename Load>
bool loadNoThrow(Load load) {
    try {
        return load();
    } catch (const std::exception&) {
        return false;
    }
}

void logException(CLog& log, const ERegExcept& e) {
    log << timestamp << static_cast<int>(e.getExceptionType()) << u": " << e.getExceptionMsg()
        << endlog;
}

}  // namespace

CXmlFile::CXmlFile(CLog* log) : CXmlFile(log, std::u16string()) {}

CXmlFile::CXmlFile(CLog* log, const std::u16string& fileName)
    : m_log(log), m_fileName(fileName), m_symbols(log) {
    m_loaded = loadNoThrow([&] { return load(); });
    if (m_loaded) return;
    if (m_fileName.empty())
        *m_log << timestamp << u"Failed to load and parse XML input from stdin." << endlog;
    else
        *m_log << timestamp << u"Failed to load and parse XML input file: " << m_fileName << endlog;
}

CXmlFile::CXmlFile(CLog* log, const std::u16string& data, int) : m_log(log), m_symbols(log) {
    m_loaded = loadNoThrow([&] { return load(data); });
    if (!m_loaded) *m_log << timestamp << u"Failed to load and parse XML input." << endlog;
}

std::u16string CXmlFile::getStdin() {
    std::u16string out;
    rt::utf8ToUtf16Lenient(readStdinBytes(), out);
    return out;
}

bool CXmlFile::load() {
    m_loaded = false;
    try {
        rt::XmlInputStream in = m_fileName.empty()
                                    ? rt::XmlInputStream::onBytes(readStdinBytes())
                                    : rt::XmlInputStream::onFile(fileNameBytes(m_fileName));
        if (!in.isOpen()) {
            *m_log << timestamp << u"Failed to create XML input stream." << endlog;
            *m_log << timestamp << u"Check file existence: " << m_fileName << endlog;
            return false;
        }
        return loadStream(in);
    } catch (const ERegExcept& e) {
        logException(*m_log, e);
    }
    return m_loaded;
}

bool CXmlFile::load(const std::u16string& data) {
    m_loaded = false;
    try {
        rt::XmlInputStream in = rt::XmlInputStream::onString(CCConv::toUTF8Str(data));
        return loadStream(in);
    } catch (const ERegExcept& e) {
        logException(*m_log, e);
    }
    return m_loaded;
}

bool CXmlFile::loadStream(rt::XmlInputStream& in) {
    rt::XmlParser parser;
    rt::XmlDocument doc;
    if (!parser.parse(in, doc)) {
        m_loaded = false;
        const size_t count = parser.numErrors(rt::XML_SEV_FATAL);
        for (size_t i = 0; i < count; ++i) {
            const rt::XmlError& e = parser.getError(i, rt::XML_SEV_FATAL);
            *m_log << timestamp << u"Parse error on XML file." << endlog;
            *m_log << timestamp << rt::severityText(e.severity) << u": " << e.reason.c_str()
                   << endlog;
            *m_log << timestamp << u" entity=" << e.entity.c_str() << endlog;
            *m_log << timestamp << u" in line " << e.line << u", " << e.column << endlog;
        }
        return false;
    }
    std::u16string errorText;
    m_loaded = parse(doc, errorText);
    doc.release();
#if defined(__GLIBC__)
    // The freed tree leaves the heap strewn with small free chunks, which
    // the next large allocation (the body) would otherwise have to sort
    // through; tidy them up now and hand unused pages back.
    malloc_trim(0);
#endif
    if (!m_loaded) {
        *m_log << timestamp << errorText << endlog;
        *m_log << timestamp << u"Failed to parse input data." << endlog;
    }
    return m_loaded;
}

// ---- building the model

std::u16string CXmlFile::trimValue(std::u16string_view text) {
    std::u16string out;
    out.reserve(text.size());
    for (char16_t c : text) {
        if (c == u'\r' || c == u'\n') continue;
        out += c == u'\t' ? u' ' : c;
    }
    // Most values have nothing to condense; spare them the second copy.
    if (out.find(u' ') == std::u16string::npos) return out;
    return CCConv::condense(out);
}

bool CXmlFile::parse(rt::XmlDocument& doc, std::u16string& errorText) {
    m_body.clear();
    *m_log << timestamp << u"Parsing XML document." << endlog;

    const XmlElement root = doc.root();
    if (!root.is(ms_tagKivInfo)) {
        errorText = u"Invalid XML root element found: " + text16(root.name());
        return false;
    }
    std::u16string name = attr16(root, ms_attrSupplierName);
    if (name.empty()) {
        errorText = u"Supplier name attribute value missing in root element.";
        return false;
    }
    m_supplierName = std::move(name);
    m_supplierVersion = attr16(root, ms_attrSupplierVersion);
    m_supplierVendor = attr16(root, ms_attrSupplierVendor);
    m_modelVersion = attr16(root, ms_attrModelVersion);
    *m_log << timestamp << u"Supplier Name: " << m_supplierName << endlog;
    *m_log << timestamp << u"Supplier Version: " << m_supplierVersion << endlog;
    *m_log << timestamp << u"Supplier Vendor: " << m_supplierVendor << endlog;
    *m_log << timestamp << u"CIM Model Version: " << m_modelVersion << endlog;

    for (XmlElement ge = root.firstChild(); ge;) {
        XmlElement next = ge.nextSibling();
        if (ge.is(ms_tagGroup)) {
            CGroup group;
            if (!processGroup(ge, group) || !processClasses(doc, ge, group)) return false;
            addGroup(std::move(group));
            doc.discard(ge);
        }
        ge = next;
    }
    return true;
}

bool CXmlFile::processClasses(rt::XmlDocument& doc, const XmlElement& groupElem, CGroup& group) {
    for (XmlElement ce = groupElem.firstChild(); ce; ce = ce.nextSibling()) {
        int type;
        if (ce.is(ms_tagClass))
            type = CClass::TYPE_CLASS;
        else if (ce.is(ms_tagRootClass))
            type = CClass::TYPE_ROOT_CLASS;
        else if (ce.is(ms_tagMemberClass))
            type = CClass::TYPE_MEMBER_CLASS;
        else
            continue;
        CClass cls;
        if (!processClass(ce, type, cls)) return false;
        for (XmlElement ie = ce.firstChild(); ie;) {
            XmlElement next = ie.nextSibling();
            if (ie.is(ms_tagInstance)) {
                cls.addInst(processInstance(ie));
                doc.discard(ie);
            }
            ie = next;
        }
        group.addClass(std::move(cls));
    }
    return true;
}

bool CXmlFile::processGroup(const XmlElement& elem, CGroup& group) {
    std::u16string name = attr16(elem, ms_attrName);
    if (name.empty()) {
        *m_log << timestamp << u"Group name attribut not specified." << endlog;
        return false;
    }
    group = CGroup(std::move(name));
    group.addAttribute(anyValue(elem, ms_attrDataType));
    group.addAttribute(anyValue(elem, ms_attrDataVersion));
    group.addAttribute(choice(ms_attrGroupType, attr16(elem, ms_attrGroupType), GENERIC_GROUP_TYPE,
                              {GENERIC_GROUP_TYPE, SPECIFIC_GROUP_TYPE}));
    return group.validateAttributes(m_log);
}

bool CXmlFile::processClass(const XmlElement& elem, int type, CClass& cls) {
    std::u16string name = attr16(elem, ms_attrName);
    if (name.empty()) {
        *m_log << timestamp << u"Class attribute name not set." << endlog;
        return false;
    }
    cls = CClass(std::move(name), type);
    switch (type) {
        case CClass::TYPE_CLASS:
            cls.addAttribute(flag(elem, ms_attrSync, TRUE_VALUE));
            cls.addAttribute(flag(elem, ms_attrMergeProperties, TRUE_VALUE));
            cls.addAttribute(clean(elem));
            break;
        case CClass::TYPE_ROOT_CLASS:
            // Root classes alone are not synchronised unless asked to be.
            cls.addAttribute(flag(elem, ms_attrSync, FALSE_VALUE));
            cls.addAttribute(flag(elem, ms_attrMergeRoots, TRUE_VALUE));
            cls.addAttribute(flag(elem, ms_attrMergeProperties, TRUE_VALUE));
            cls.addAttribute(clean(elem));
            break;
        default:
            cls.addAttribute(anyValue(elem, ms_attrAssocName));
            cls.addAttribute(anyValue(elem, ms_attrRootRole));
            cls.addAttribute(anyValue(elem, ms_attrMemberRole));
            cls.addAttribute(flag(elem, ms_attrSync, TRUE_VALUE));
            cls.addAttribute(flag(elem, ms_attrMergeMembers, TRUE_VALUE));
            cls.addAttribute(flag(elem, ms_attrMergeProperties, TRUE_VALUE));
            cls.addAttribute(clean(elem));
            cls.addAttribute(flag(elem, ms_attrOptional, FALSE_VALUE));
            for (std::string_view optional :
                 {ms_attrMergeAssocClass, ms_attrMergeRootClass, ms_attrMergeMemberClass}) {
                CAttr a = anyValue(elem, optional);
                if (!a.getValue().empty()) cls.addAttribute(std::move(a));
            }
            break;
    }
    return cls.validateAttributes(m_log);
}

CInst CXmlFile::processInstance(const XmlElement& elem) {
    CInst inst(attr16(elem, ms_attrInstId));
    for (XmlElement child = elem.firstChild(); child; child = child.nextSibling()) {
        if (child.is(ms_tagProperty)) {
            CProp prop(attr16(child, ms_attrName));
            prop.setSourceformat(attr16(child, ms_attrSourceformat));
            for (XmlElement ve = child.firstChild(); ve; ve = ve.nextSibling())
                if (ve.is(ms_tagValue)) prop.addValue(trimValue(text16(ve.text())));
            inst.addProperty(std::move(prop));
        } else if (child.is(ms_tagReference)) {
            inst.addReference(CRef(attr16(child, ms_attrRoleName), attr16(child, ms_attrGroupName),
                                   attr16(child, ms_attrClassName), attr16(child, ms_attrInstId)));
        }
    }
    return inst;
}

void CXmlFile::addGroup(CGroup&& group) {
    // References resolve against the last group of a name; all are kept in order.
    m_groupsByName.insert_or_assign(group.getName(), m_groups.size());
    m_groups.push_back(std::move(group));
}

const CGroup* CXmlFile::findGroup(const std::u16string& name) const {
    auto it = m_groupsByName.find(name);
    return it == m_groupsByName.end() ? nullptr : &m_groups[it->second];
}

bool CXmlFile::hasGroupOfType(const std::u16string& type) const {
    for (const CGroup& g : m_groups)
        if (g.getAttributeValue(u"group_type") == type) return true;
    return false;
}

// ---- symbols

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
    auto replaceCopy = [&](const std::u16string& text, auto set) {
        if (text.find(PSymbols::symbol_start) == std::u16string::npos) return;
        std::u16string v = text;
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
                for (auto& [name, prop] : inst.properties()) {
                    replaceCopy(prop.getSourceformat(),
                                [&](std::u16string v) { prop.setSourceformat(std::move(v)); });
                    for (auto v = prop.getValueChangeIterator();
                         v != prop.getValueChangeEnd() &&
                         budget.stopped == PSymbols::Budget::Stop::None;
                         ++v)
                        sym.replaceSymbolsInPlace(*v, budget);
                    if (stopped([&] {
                            return cls + u", instance " + quoted(inst.getId()) + u", property " +
                                   quoted(name);
                        }))
                        return false;
                }
            }
        }
    }
    return true;
}

// ---- reference validation

bool CXmlFile::validateReferences() const {
    // Resolution tables, built on first need: the first class of each name
    // in a referenced group, and the instance ids of each referenced class.
    std::vector<std::unordered_map<std::u16string_view, const CClass*>> classesOf(m_groups.size());
    std::vector<bool> classesBuilt(m_groups.size(), false);
    std::unordered_map<const CClass*, std::unordered_set<std::u16string_view>> idsOf;

    auto findClass = [&](size_t groupIndex, const std::u16string& name) -> const CClass* {
        auto& table = classesOf[groupIndex];
        if (!classesBuilt[groupIndex]) {
            for (const CClass& c : m_groups[groupIndex].classes())
                table.try_emplace(c.getName(), &c);
            classesBuilt[groupIndex] = true;
        }
        auto it = table.find(name);
        return it == table.end() ? nullptr : it->second;
    };
    auto hasInstance = [&](const CClass* cls, const std::u16string& id) {
        auto [it, fresh] = idsOf.try_emplace(cls);
        if (fresh)
            for (const CInst& i : cls->instances()) it->second.insert(i.getId());
        return it->second.contains(id);
    };

    bool ok = true;
    for (const CGroup& g : m_groups) {
        for (const CClass& c : g.classes()) {
            for (const CInst& inst : c.instances()) {
                for (const auto& [role, ref] : inst.references()) {
                    std::u16string kind;
                    std::u16string target;
                    auto gi = m_groupsByName.find(ref.getGroupName());
                    if (gi == m_groupsByName.end()) {
                        kind =
                            u"Unknown group referenced (Location: group|assoc_class / Reference: "
                            u"associated group):\n";
                        target = ref.getGroupName();
                    } else {
                        const CGroup& tg = m_groups[gi->second];
                        const CClass* tc = findClass(gi->second, ref.getClassName());
                        if (tc == nullptr) {
                            kind =
                                u"Unknown class referenced (Location: group|assoc_class / "
                                u"Reference: associated group|asscociated class):\n";
                            target = tg.getName() + u"|" + ref.getClassName();
                        } else if (!hasInstance(tc, ref.getInstId())) {
                            kind =
                                u"Unknown instance ID specified (Location: group|assoc_class / "
                                u"Reference: associated group|asscociated class|associated inst "
                                u"ID):\n";
                            target = tg.getName() + u"|" + tc->getName() + u"|" + ref.getInstId();
                        } else {
                            continue;
                        }
                    }
                    *m_log << timestamp << u"On validating associations specified in XML input:\n"
                           << kind << u"(1) Location: " << g.getName() << u"|" << c.getName()
                           << u"\n(2) Reference: " << target << endlog;
                    ok = false;
                    break;  // one report per instance
                }
            }
        }
    }
    return ok;
}

}  // namespace kivreg
