// Rendering of the model elements as transfer-document text. Only property
// values are escaped; names and attribute values go out exactly as they are
// held, which the receiving side expects.

#include <algorithm>

#include "model/CClass.h"
#include "model/CGroup.h"
#include "model/CInst.h"
#include "model/CProp.h"
#include "model/CRef.h"

namespace kivreg {

// ---- CProp

void CProp::appendEscaped(std::u16string& out, std::u16string_view value) {
    size_t start = 0;
    for (size_t i = 0; i < value.size(); ++i) {
        const char16_t* entity;
        switch (value[i]) {
            case u'&': entity = u"&amp;"; break;
            case u'<': entity = u"&lt;"; break;
            case u'>': entity = u"&gt;"; break;
            case u'"': entity = u"&quot;"; break;
            case u'\'': entity = u"&apos;"; break;
            default: continue;
        }
        out.append(value, start, i - start);
        out += entity;
        start = i + 1;
    }
    out.append(value, start);
}

std::u16string CProp::escapeXML(std::u16string_view value) {
    std::u16string out;
    out.reserve(value.size());
    appendEscaped(out, value);
    return out;
}

void CProp::appendXml(std::u16string& out) const {
    out += u"<property name=\"";
    out += m_name;
    out += u'"';
    if (!m_sourceformat.empty()) {
        out += u" sourceformat=\"";
        out += m_sourceformat;
        out += u'"';
    }
    out += u'>';
    for (const std::u16string& v : m_values) {
        out += u"<value>";
        appendEscaped(out, v);
        out += u"</value>";
    }
    out += u"</property>";
}

// ---- CRef

void CRef::appendXml(std::u16string& out) const {
    out += u"<reference rolename=\"";
    out += m_roleName;
    out += u"\" groupname=\"";
    out += m_groupName;
    out += u"\" classname=\"";
    out += m_className;
    out += u'"';
    if (!m_instId.empty()) {
        out += u" inst_id=\"";
        out += m_instId;
        out += u'"';
    }
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

void CInst::appendXml(std::u16string& out) const {
    out += u"<instance";
    if (!m_id.empty()) {
        out += u" inst_id=\"";
        out += m_id;
        out += u'"';
    }
    out += u'>';
    for (const auto& [name, prop] : m_properties) prop.appendXml(out);
    for (const auto& [role, ref] : m_references) ref.appendXml(out);
    out += u"</instance>";
}

// ---- CClass

std::u16string CClass::getType() const {
    switch (m_type) {
        case TYPE_CLASS: return u"Class";
        case TYPE_ROOT_CLASS: return u"Root class";
        case TYPE_MEMBER_CLASS: return u"Member class";
        default: return {};
    }
}

void CClass::appendXml(std::u16string& out) const {
    const char16_t* tag = nullptr;
    switch (m_type) {
        case TYPE_CLASS: tag = u"class"; break;
        case TYPE_ROOT_CLASS: tag = u"rootclass"; break;
        case TYPE_MEMBER_CLASS: tag = u"memberclass"; break;
        default: break;
    }
    // A kind outside the three is made visible in the document rather than
    // silently mapped to one of them.
    if (tag != nullptr) {
        out += u'<';
        out += tag;
    } else {
        out += u"INVALID CLASS TYPE";
    }
    out += u" name=\"";
    out += m_name;
    out += u'"';
    appendAttributes(out);
    out += u'>';
    for (const CInst& inst : m_instances) inst.appendXml(out);
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

void CGroup::appendXml(std::u16string& out) const {
    out += u"<group name=\"";
    out += m_name;
    out += u'"';
    appendAttributes(out);
    out += u'>';
    for (const CClass& cls : m_classes) cls.appendXml(out);
    out += u"</group>";
}

}  // namespace kivreg
