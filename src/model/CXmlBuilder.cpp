// Loading the supplier's document: the model is built from the parser's
// events as the input is read, without a tree. Messages about the document
// are held back until the whole input has proved well-formed.

#include "model/CXmlFile.h"

#include <cstdio>
#include <exception>

#include <algorithm>
#include <cstring>
#include "runtime/XmlAdapter.h"
#include "runtime/textconv.h"

#include "model/Utf16Order.h"
#include "model/Utf8Log.h"
#include "support/CCConv.h"
#include "support/CLog.h"

namespace kivreg {

namespace {

using rt::XmlStartTag;

std::string attr(const XmlStartTag& e, std::string_view name) {
    return std::string(e.attribute(name));
}

// An attribute that admits only the given values.
CAttr choice(std::string_view name, std::string value, std::string_view defaultValue,
             std::initializer_list<std::string_view> allowed) {
    CAttr a(std::string(name), std::move(value), std::string(defaultValue));
    for (std::string_view v : allowed) a.addAllowedValue(std::string(v));
    return a;
}

CAttr flag(const XmlStartTag& e, std::string_view name, std::string_view defaultValue) {
    return choice(name, attr(e, name), defaultValue, {CXmlFile::TRUE_VALUE, CXmlFile::FALSE_VALUE});
}

CAttr clean(const XmlStartTag& e) {
    return choice(CXmlFile::ms_attrClean, attr(e, CXmlFile::ms_attrClean), CXmlFile::CLEAN_NONE,
                  {CXmlFile::CLEAN_NONE, CXmlFile::CLEAN_LONE, CXmlFile::CLEAN_ALL});
}

CAttr anyValue(const XmlStartTag& e, std::string_view name) {
    return CAttr(std::string(name), attr(e, name));
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

bool CXmlFile::load() {
    m_loaded = false;
    try {
        rt::XmlInputStream in = m_fileName.empty()
                                    ? rt::XmlInputStream::onStdin()
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

// ---- building the model

namespace {

// In place and in one pass: line breaks go, tabs become blanks, blank runs
// one blank, none at either end. The characters involved are ASCII, so this
// works on UTF-8 byte by byte. Returns the new length.
size_t normaliseValue(char* text, size_t size) {
    size_t out = 0;
    bool blank = false;  // one is owed before the next character
    for (size_t i = 0; i < size; ++i) {
        const char c = text[i];
        if (c == '\r' || c == '\n') continue;
        if (c == '\t' || c == ' ') {
            blank = out > 0;
            continue;
        }
        if (blank) text[out++] = ' ';
        blank = false;
        text[out++] = c;
    }
    return out;
}

// Sorts an instance's entries by key in 16-bit unit order; of entries with
// the same key the last one stays. Documents mostly list them in order
// already, which one pass confirms.
template <typename Entry, typename Key>
void sortKeepingLast(std::vector<Entry>& entries, Key key) {
    const auto less = [&](const Entry& a, const Entry& b) {
        return lessUtf16Order(key(a), key(b));
    };
    const auto ordered = [&] {
        for (size_t i = 1; i < entries.size(); ++i)
            if (!less(entries[i - 1], entries[i])) return false;
        return true;
    };
    if (ordered()) return;
    std::stable_sort(entries.begin(), entries.end(), less);
    size_t out = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        if (i + 1 < entries.size() && key(entries[i]) == key(entries[i + 1])) continue;
        entries[out++] = entries[i];
    }
    entries.resize(out);
}

}  // namespace

// Builds the model from the parser's events. Elements are recognised by
// their depth and name; anything else is passed over with what it holds. A
// rejected root, group or class stops the building there: what was built
// stays, and the rest of the input is only read for well-formedness. Texts
// go from the parser's buffers straight into the document's store.
class CXmlFile::Builder final : public rt::XmlHandler {
public:
    explicit Builder(CXmlFile& file) : m_file(file), m_store(*file.m_store) {}

    bool succeeded() const { return m_ok; }
    const std::u16string& errorText() const { return m_errorText; }

    void startElement(const XmlStartTag& tag) override {
        ++m_depth;
        if (!m_ok || m_valueDepth != 0) return;
        switch (m_depth) {
            case kRoot:
                root(tag);
                break;
            case kGroup:
                m_inGroup = tag.is(ms_tagGroup);
                if (m_inGroup) m_ok = m_file.processGroup(tag, m_group);
                break;
            case kClass:
                m_inClass = m_inGroup && classType(tag, m_classType);
                if (m_inClass) m_ok = m_file.processClass(tag, m_classType, m_class);
                break;
            case kInstance:
                m_inInstance = m_inClass && tag.is(ms_tagInstance);
                if (m_inInstance) {
                    m_id = m_store.texts.keep(tag.attribute(ms_attrInstId));
                    m_props.clear();
                    m_refs.clear();
                }
                break;
            case kProperty:
                m_inProperty = m_inInstance && tag.is(ms_tagProperty);
                if (m_inProperty) {
                    m_propName = name(tag, ms_attrName);
                    m_propFormat = name(tag, ms_attrSourceformat);
                    m_values.clear();
                } else if (m_inInstance && tag.is(ms_tagReference)) {
                    m_refs.emplace_back(name(tag, ms_attrRoleName), name(tag, ms_attrGroupName),
                                        name(tag, ms_attrClassName),
                                        m_store.texts.keep(tag.attribute(ms_attrInstId)));
                }
                break;
            case kValue:
                if (m_inProperty && tag.is(ms_tagValue)) m_valueDepth = m_depth;
                break;
            default:
                break;
        }
    }

    // The flags need no reset here: the start of the next element at a depth
    // sets that depth's flag before anything below it is read.
    void endElement() override {
        const int depth = m_depth--;
        if (!m_ok) return;
        if (m_valueDepth != 0) {
            if (depth != m_valueDepth) return;
            m_valueDepth = 0;
            CTextStore& texts = m_store.texts;
            const std::string_view raw = texts.pending();
            m_values.push_back(texts.commit(normaliseValue(texts.pendingData(), raw.size())));
            return;
        }
        switch (depth) {
            case kProperty:
                if (m_inProperty)
                    m_props.emplace_back(m_propName, m_propFormat,
                                         m_store.texts.values().keep(m_values));
                break;
            case kInstance:
                if (m_inInstance) {
                    sortKeepingLast(m_props, [](const CProp& p) { return p.getName(); });
                    sortKeepingLast(m_refs, [](const CRef& r) { return r.getRoleName(); });
                    m_class.addInst(CInst(m_id, m_store.properties.keep(m_props),
                                          m_store.references.keep(m_refs)));
                }
                break;
            case kClass:
                if (m_inClass) m_group.addClass(std::move(m_class));
                break;
            case kGroup:
                if (m_inGroup) m_file.addGroup(std::move(m_group));
                break;
            default:
                break;
        }
    }

    // A value's text is that of the element and everything in it.
    void text(std::string_view utf8) override {
        if (!m_ok || m_valueDepth == 0 || utf8.empty()) return;
        CTextStore& texts = m_store.texts;
        std::memcpy(texts.reserve(utf8.size()), utf8.data(), utf8.size());
        texts.wrote(utf8.size());
    }

private:
    enum Depth { kRoot = 1, kGroup, kClass, kInstance, kProperty, kValue };

    void root(const XmlStartTag& tag) {
        CLog& log = *m_file.m_log;
        log << timestamp << u"Parsing XML document." << endlog;
        if (!tag.is(ms_tagKivInfo)) {
            m_errorText = u"Invalid XML root element found: " + utf16(tag.name());
            m_ok = false;
            return;
        }
        std::string name = attr(tag, ms_attrSupplierName);
        if (name.empty()) {
            m_errorText = u"Supplier name attribute value missing in root element.";
            m_ok = false;
            return;
        }
        m_file.m_supplierName = std::move(name);
        m_file.m_supplierVersion = attr(tag, ms_attrSupplierVersion);
        m_file.m_supplierVendor = attr(tag, ms_attrSupplierVendor);
        m_file.m_modelVersion = attr(tag, ms_attrModelVersion);
        log << timestamp << u"Supplier Name: " << Utf8(m_file.m_supplierName) << endlog;
        log << timestamp << u"Supplier Version: " << Utf8(m_file.m_supplierVersion) << endlog;
        log << timestamp << u"Supplier Vendor: " << Utf8(m_file.m_supplierVendor) << endlog;
        log << timestamp << u"CIM Model Version: " << Utf8(m_file.m_modelVersion) << endlog;
    }

    // An attribute whose values repeat across the document, held once.
    std::string_view name(const XmlStartTag& tag, std::string_view attribute) {
        return m_store.texts.intern(tag.attribute(attribute));
    }

    static bool classType(const XmlStartTag& tag, int& type) {
        if (tag.is(ms_tagClass))
            type = CClass::TYPE_CLASS;
        else if (tag.is(ms_tagRootClass))
            type = CClass::TYPE_ROOT_CLASS;
        else if (tag.is(ms_tagMemberClass))
            type = CClass::TYPE_MEMBER_CLASS;
        else
            return false;
        return true;
    }

    CXmlFile& m_file;
    Store& m_store;
    bool m_ok = true;
    std::u16string m_errorText;
    int m_depth = 0;
    int m_valueDepth = 0;  // of the value being read, 0 outside one
    bool m_inGroup = false, m_inClass = false, m_inInstance = false, m_inProperty = false;
    int m_classType = 0;
    CGroup m_group;
    CClass m_class;
    // The instance and property being read; reused from one to the next.
    std::string_view m_id, m_propName, m_propFormat;
    std::vector<std::string_view> m_values;
    std::vector<CProp> m_props;
    std::vector<CRef> m_refs;
};

bool CXmlFile::loadStream(rt::XmlInputStream& in) {
    forgetBodySizes();
    Builder builder(*this);
    rt::XmlParser parser;
    // Should the parse or the handler throw, what was said stays said; after a
    // failed parse has dropped the held lines, this release finds none.
    struct Hold {
        CLog& log;
        ~Hold() { log.releaseHeld(true); }
    } hold{*m_log};
    m_log->holdBack();
    if (!parser.parse(in, builder)) {
        m_log->releaseHeld(false);
        // A document that is not well-formed gives no model at all.
        m_groups.clear();
        m_groupsByName.clear();
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
    m_log->releaseHeld(true);
    m_loaded = builder.succeeded();
    if (!m_loaded) {
        *m_log << timestamp << builder.errorText() << endlog;
        *m_log << timestamp << u"Failed to parse input data." << endlog;
    }
    return m_loaded;
}

bool CXmlFile::processGroup(const XmlStartTag& elem, CGroup& group) {
    std::string name = attr(elem, ms_attrName);
    if (name.empty()) {
        *m_log << timestamp << u"Group name attribut not specified." << endlog;
        return false;
    }
    group = CGroup(std::move(name));
    group.addAttribute(anyValue(elem, ms_attrDataType));
    group.addAttribute(anyValue(elem, ms_attrDataVersion));
    group.addAttribute(choice(ms_attrGroupType, attr(elem, ms_attrGroupType), GENERIC_GROUP_TYPE,
                              {GENERIC_GROUP_TYPE, SPECIFIC_GROUP_TYPE}));
    return group.validateAttributes(m_log);
}

bool CXmlFile::processClass(const XmlStartTag& elem, int type, CClass& cls) {
    std::string name = attr(elem, ms_attrName);
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

void CXmlFile::addGroup(CGroup&& group) {
    // References resolve against the last group of a name; all are kept in order.
    m_groupsByName.insert_or_assign(group.getName(), m_groups.size());
    m_groups.push_back(std::move(group));
}

}  // namespace kivreg
