// Rendering of the model elements as transfer-document text. Only property
// values are escaped; names and attribute values go out exactly as they are
// held, which the receiving side expects.

// Each element's render template is instantiated here for every output: the
// string, UTF-8 bytes and the two counters (see CXmlElem and XmlLength.h).

#include <algorithm>
#include <iterator>

#include "model/CClass.h"
#include "model/CGroup.h"
#include "model/CInst.h"
#include "model/CProp.h"
#include "model/CRef.h"

namespace kivreg {

// ---- CProp

std::u16string CProp::escapeXML(std::u16string_view value) {
    std::u16string out;
    out.reserve(value.size());
    appendEscaped(out, value);
    return out;
}

template <typename Out>
void CProp::render(Out& out) const {
    putAttribute(out, u"<property name=\"", *m_name);
    putAttributeIfSet(out, u" sourceformat=\"", *m_sourceformat);
    out += u'>';
    for (std::u16string_view v : m_values) {
        out += u"<value>";
        appendEscaped(out, v);
        out += u"</value>";
    }
    out += u"</property>";
}

// ---- CRef

template <typename Out>
void CRef::render(Out& out) const {
    putAttribute(out, u"<reference rolename=\"", *m_roleName);
    putAttribute(out, u" groupname=\"", *m_groupName);
    putAttribute(out, u" classname=\"", *m_className);
    putAttributeIfSet(out, u" inst_id=\"", m_instId);
    out += u"/>";
}

// ---- CInst

template <typename Out>
void CInst::render(Out& out) const {
    out += u"<instance";
    putAttributeIfSet(out, u" inst_id=\"", m_id);
    out += u'>';
    for (const CProp& prop : m_properties) prop.render(out);
    for (const CRef& ref : m_references) ref.render(out);
    out += u"</instance>";
}

// ---- CClass

namespace {

// Element tag and readable name of each class kind, indexed by its code.
struct ClassKind {
    const char16_t* tag;
    const char16_t* name;
};
constexpr ClassKind kClassKinds[] = {
    {u"class", u"Class"}, {u"rootclass", u"Root class"}, {u"memberclass", u"Member class"}};

static_assert(CClass::TYPE_CLASS == 0 && CClass::TYPE_ROOT_CLASS == 1 &&
              CClass::TYPE_MEMBER_CLASS == 2);

const ClassKind* classKind(int type) {
    return type >= 0 && type < static_cast<int>(std::size(kClassKinds)) ? &kClassKinds[type]
                                                                        : nullptr;
}

}  // namespace

std::u16string CClass::getType() const {
    const ClassKind* kind = classKind(m_type);
    return kind != nullptr ? kind->name : std::u16string();
}

template <typename Out>
void CClass::render(Out& out) const {
    const ClassKind* kind = classKind(m_type);
    // A kind outside the three is made visible in the document rather than
    // silently mapped to one of them.
    if (kind != nullptr) {
        out += u'<';
        out += kind->tag;
    } else {
        out += u"INVALID CLASS TYPE";
    }
    putAttribute(out, u" name=\"", m_name);
    renderAttributes(out);
    out += u'>';
    for (const CInst& inst : m_instances) inst.render(out);
    if (kind != nullptr) {
        out += u"</";
        out += kind->tag;
        out += u'>';
    }
}

// ---- CGroup

CGroup::ClassList::const_iterator CGroup::getClass(const std::u16string& name) const {
    return std::find_if(m_classes.begin(), m_classes.end(),
                        [&](const CClass& c) { return c.getName() == name; });
}

template <typename Out>
void CGroup::render(Out& out) const {
    putAttribute(out, u"<group name=\"", m_name);
    renderAttributes(out);
    out += u'>';
    for (const CClass& cls : m_classes) cls.render(out);
    out += u"</group>";
}

// ---- the two outputs every element renders into

template void CProp::render(std::u16string&) const;
template void CProp::render(XmlLength&) const;
template void CProp::render(Utf8Out&) const;
template void CProp::render(Utf8Length&) const;
template void CRef::render(std::u16string&) const;
template void CRef::render(XmlLength&) const;
template void CRef::render(Utf8Out&) const;
template void CRef::render(Utf8Length&) const;
template void CInst::render(std::u16string&) const;
template void CInst::render(XmlLength&) const;
template void CInst::render(Utf8Out&) const;
template void CInst::render(Utf8Length&) const;
template void CClass::render(std::u16string&) const;
template void CClass::render(XmlLength&) const;
template void CClass::render(Utf8Out&) const;
template void CClass::render(Utf8Length&) const;
template void CGroup::render(std::u16string&) const;
template void CGroup::render(XmlLength&) const;
template void CGroup::render(Utf8Out&) const;
template void CGroup::render(Utf8Length&) const;

}  // namespace kivreg
