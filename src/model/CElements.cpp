// Rendering of the model elements as transfer-document text. Only property
// values are escaped; names and attribute values go out exactly as they are
// held, which the receiving side expects.

// Each element's render template is instantiated here, through the
// appendXml and xmlLength overrides declared with it.

#include <algorithm>

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
    putAttribute(out, u"<property name=\"", m_name);
    putAttributeIfSet(out, u" sourceformat=\"", m_sourceformat);
    out += u'>';
    for (const std::u16string& v : m_values) {
        out += u"<value>";
        appendEscaped(out, v);
        out += u"</value>";
    }
    out += u"</property>";
}

// ---- CRef

template <typename Out>
void CRef::render(Out& out) const {
    putAttribute(out, u"<reference rolename=\"", m_roleName);
    putAttribute(out, u" groupname=\"", m_groupName);
    putAttribute(out, u" classname=\"", m_className);
    putAttributeIfSet(out, u" inst_id=\"", m_instId);
    out += u"/>";
}

// ---- CInst

void CInst::addProperty(CProp&& prop) {
    auto it = m_properties.find(prop.getName());
    if (it != m_properties.end())
        it->second = std::move(prop);
    else
        m_properties.emplace(prop.getName(), std::move(prop));
}

void CInst::addReference(CRef&& ref) {
    auto it = m_references.find(ref.getRoleName());
    if (it != m_references.end())
        it->second = std::move(ref);
    else
        m_references.emplace(ref.getRoleName(), std::move(ref));
}

template <typename Out>
void CInst::render(Out& out) const {
    out += u"<instance";
    putAttributeIfSet(out, u" inst_id=\"", m_id);
    out += u'>';
    for (const auto& [name, prop] : m_properties) prop.render(out);
    for (const auto& [role, ref] : m_references) ref.render(out);
    out += u"</instance>";
}

// ---- CClass

std::u16string CClass::getType() const {
    switch (m_type) {
        case TYPE_CLASS:
            return u"Class";
        case TYPE_ROOT_CLASS:
            return u"Root class";
        case TYPE_MEMBER_CLASS:
            return u"Member class";
        default:
            return {};
    }
}

template <typename Out>
void CClass::render(Out& out) const {
    const char16_t* tag = nullptr;
    switch (m_type) {
        case TYPE_CLASS:
            tag = u"class";
            break;
        case TYPE_ROOT_CLASS:
            tag = u"rootclass";
            break;
        case TYPE_MEMBER_CLASS:
            tag = u"memberclass";
            break;
        default:
            break;
    }
    // A kind outside the three is made visible in the document rather than
    // silently mapped to one of them.
    if (tag != nullptr) {
        out += u'<';
        out += tag;
    } else {
        out += u"INVALID CLASS TYPE";
    }
    putAttribute(out, u" name=\"", m_name);
    renderAttributes(out);
    out += u'>';
    for (const CInst& inst : m_instances) inst.render(out);
    if (tag != nullptr) {
        out += u"</";
        out += tag;
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

// ---- the two ways of rendering each element

template <typename Elem>
size_t measured(const Elem& elem) {
    XmlLength n;
    elem.render(n);
    return n.units;
}

void CProp::appendXml(std::u16string& out) const {
    render(out);
}
size_t CProp::xmlLength() const {
    return measured(*this);
}
void CRef::appendXml(std::u16string& out) const {
    render(out);
}
size_t CRef::xmlLength() const {
    return measured(*this);
}
void CInst::appendXml(std::u16string& out) const {
    render(out);
}
size_t CInst::xmlLength() const {
    return measured(*this);
}
void CClass::appendXml(std::u16string& out) const {
    render(out);
}
size_t CClass::xmlLength() const {
    return measured(*this);
}
void CGroup::appendXml(std::u16string& out) const {
    render(out);
}
size_t CGroup::xmlLength() const {
    return measured(*this);
}

}  // namespace kivreg
