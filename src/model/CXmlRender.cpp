// The transfer body in the current format (groups, classes with their kind,
// instances) and in the older one, written as UTF-8 straight from the model.
// Property values of the current format are escaped in full. Everywhere else
// only what would make the document unreadable is escaped (&, < and, in
// attribute values, "), so that every document that was well-formed before
// goes out byte for byte as it always has.
//
// Each document is rendered twice by the same code: once into a counter for
// its exact length, once into a buffer of that length, so that a large body
// is allocated once and never copied; or, for sending, into pieces of one
// small buffer, so that the body and the model are never held side by side.

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <span>
#include <utility>

#include "model/CXmlFile.h"

namespace kivreg {

namespace {

// The entity for each byte that needs one, else null.
using Entities = std::array<const char*, 256>;
constexpr Entities entities(std::string_view bytes) {
    constexpr std::pair<char, const char*> all[] = {
        {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&apos;"}};
    Entities t{};
    for (const auto& [c, entity] : all)
        if (bytes.find(c) != std::string_view::npos) t[static_cast<unsigned char>(c)] = entity;
    return t;
}
constexpr Entities kValue = entities("&<>\"'");  // property values, current format
constexpr Entities kAttribute = entities("&<\"");
// '>' only where it would close "]]>", which text must not hold.
constexpr Entities kText = entities("&<>");

// Bytes of UTF-8 never hold an ASCII byte inside a longer character, so a
// scan byte by byte finds exactly the characters of the table.
template <const Entities& table, typename Out>
void putEscaped(Out& out, std::string_view value) {
    const char* p = value.data();
    const char* const end = p + value.size();
    const char* run = p;
    for (; p != end; ++p) {
        const char* entity = table[static_cast<unsigned char>(*p)];
        if (entity == nullptr) continue;
        if (&table == &kText && *p == '>' &&
            !(p - value.data() >= 2 && p[-1] == ']' && p[-2] == ']'))
            continue;
        out.put(std::string_view(run, static_cast<size_t>(p - run)));
        out.put(std::string_view(entity));
        run = p + 1;
    }
    out.put(std::string_view(run, static_cast<size_t>(end - run)));
}

// Counts what Writer writes.
struct Counter {
    size_t bytes = 0;
    void put(std::string_view s) { bytes += s.size(); }
};

struct Writer {
    char* at;
    void put(std::string_view s) {
        // Empty texts of the model may have no storage at all.
        if (s.empty()) return;
        std::memcpy(at, s.data(), s.size());
        at += s.size();
    }
};

// Fills the buffer to the brim before handing it on, so that the pieces are
// the same whatever the texts' sizes; after a refused piece it only counts.
struct Chunker {
    std::span<char> buffer;
    const std::function<bool(std::string_view)>& write;
    size_t used = 0;
    bool failed = false;

    void put(std::string_view s) {
        while (s.size() > buffer.size() - used) {
            const size_t n = buffer.size() - used;
            std::memcpy(buffer.data() + used, s.data(), n);
            used = buffer.size();
            s.remove_prefix(n);
            flush();
        }
        if (s.empty()) return;
        std::memcpy(buffer.data() + used, s.data(), s.size());
        used += s.size();
    }
    void flush() {
        if (!failed && used != 0) failed = !write(std::string_view(buffer.data(), used));
        used = 0;
    }
};

// An attribute whose opening (blank, name, '="') is given, its value and
// the closing quote.
template <typename Out>
void putAttribute(Out& out, std::string_view opening, std::string_view value) {
    out.put(opening);
    putEscaped<kAttribute>(out, value);
    out.put("\"");
}

template <typename Out>
void putAttributeIfSet(Out& out, std::string_view opening, std::string_view value) {
    if (!value.empty()) putAttribute(out, opening, value);
}

template <typename Out>
void putAttributes(Out& out, const CBaseElem& elem) {
    for (const CAttr& a : elem.attributes()) {
        out.put(" ");
        out.put(a.getName());
        putAttribute(out, "=\"", a.getValue());
    }
}

// Element tag and readable name of each class kind, indexed by its code.
struct ClassKind {
    std::string_view tag;
    const char16_t* name;
};
constexpr ClassKind kClassKinds[] = {
    {"class", u"Class"}, {"rootclass", u"Root class"}, {"memberclass", u"Member class"}};

static_assert(CClass::TYPE_CLASS == 0 && CClass::TYPE_ROOT_CLASS == 1 &&
              CClass::TYPE_MEMBER_CLASS == 2);

// The builder makes classes of these three kinds only.
const ClassKind& classKind(int type) {
    return kClassKinds[type];
}

template <typename Out>
void putInstance(Out& out, const CInst& inst) {
    out.put("<instance");
    putAttributeIfSet(out, " inst_id=\"", inst.getId());
    out.put(">");
    for (const CProp& prop : inst.properties()) {
        putAttribute(out, "<property name=\"", prop.getName());
        putAttributeIfSet(out, " sourceformat=\"", prop.getSourceformat());
        out.put(">");
        for (std::string_view v : prop.values()) {
            out.put("<value>");
            putEscaped<kValue>(out, v);
            out.put("</value>");
        }
        out.put("</property>");
    }
    for (const CRef& ref : inst.references()) {
        putAttribute(out, "<reference rolename=\"", ref.getRoleName());
        putAttribute(out, " groupname=\"", ref.getGroupName());
        putAttribute(out, " classname=\"", ref.getClassName());
        putAttributeIfSet(out, " inst_id=\"", ref.getInstId());
        out.put("/>");
    }
    out.put("</instance>");
}

template <typename Out>
void putClass(Out& out, const CClass& cls) {
    const std::string_view tag = classKind(cls.getTypeCode()).tag;
    out.put("<");
    out.put(tag);
    putAttribute(out, " name=\"", cls.getName());
    putAttributes(out, cls);
    out.put(">");
    for (const CInst& inst : cls.instances()) putInstance(out, inst);
    out.put("</");
    out.put(tag);
    out.put(">");
}

// The older format: each instance under its class name; the target id of a
// reference is written even when empty, and values are escaped as little as
// the document allows.
template <typename Out>
void putInstanceOld(Out& out, const CClass& c, const CInst& inst) {
    putAttribute(out, "<instance classname=\"", c.getName());
    putAttributeIfSet(out, " inst_id=\"", inst.getId());
    out.put(">");
    for (const CProp& prop : inst.properties()) {
        putAttribute(out, "<property name=\"", prop.getName());
        out.put(">");
        for (std::string_view v : prop.values()) {
            out.put("<value>");
            putEscaped<kText>(out, v);
            out.put("</value>");
        }
        out.put("</property>");
    }
    for (const CRef& ref : inst.references()) {
        putAttribute(out, "<reference rolename=\"", ref.getRoleName());
        putAttribute(out, " classname=\"", ref.getClassName());
        putAttribute(out, " inst_id=\"", ref.getInstId());
        out.put("/>");
    }
    out.put("</instance>");
}

}  // namespace

const char16_t* CClass::getType() const {
    return classKind(m_type).name;
}

std::string CProp::escapeXML(std::string_view value) {
    Counter n;
    putEscaped<kValue>(n, value);
    std::string out(n.bytes, '\0');
    Writer w{out.data()};
    putEscaped<kValue>(w, value);
    return out;
}

template <typename Out>
void CXmlFile::renderBody(Out& out) const {
    putAttribute(out, "<kivinfo supplier_name=\"", m_supplierName);
    putAttributeIfSet(out, " supplier_version=\"", m_supplierVersion);
    putAttributeIfSet(out, " supplier_vendor=\"", m_supplierVendor);
    putAttributeIfSet(out, " model_version=\"", m_modelVersion);
    out.put(">");
    for (const CGroup& g : m_groups) {
        putAttribute(out, "<group name=\"", g.getName());
        putAttributes(out, g);
        out.put(">");
        for (const CClass& c : g.classes()) putClass(out, c);
        out.put("</group>");
    }
    out.put("</kivinfo>");
}

template <typename Out>
void CXmlFile::renderBodyOld(Out& out) const {
    putAttribute(out, "<qordata type=\"", m_supplierName);
    putAttribute(out, " version=\"", m_supplierVersion);
    out.put(">");
    for (const CGroup& g : m_groups)
        for (const CClass& c : g.classes())
            for (const CInst& inst : c.instances()) putInstanceOld(out, c, inst);
    out.put("</qordata>");
}

template <typename Out>
void CXmlFile::render(Out& out) const {
    if (m_oldTransferDtd)
        renderBodyOld(out);
    else
        renderBody(out);
}

size_t CXmlFile::bodySize() const {
    size_t& size = m_bodySizes[m_oldTransferDtd ? 1 : 0];
    if (size == kUncounted) {
        Counter length;
        render(length);
        size = length.bytes;
    }
    return size;
}

bool CXmlFile::writeBody(std::string_view head, size_t piece,
                         const std::function<bool(std::string_view)>& write) const {
    const auto buffer = std::make_unique_for_overwrite<char[]>(piece);
    Chunker out{{buffer.get(), piece}, write};
    out.put(head);
    render(out);
    out.flush();
    return !out.failed;
}

void CXmlFile::appendBody(std::string& out) const {
    Counter length;
    render(length);
    const size_t base = out.size();
    out.resize(base + length.bytes);
    Writer writer{out.data() + base};
    render(writer);
}

}  // namespace kivreg
