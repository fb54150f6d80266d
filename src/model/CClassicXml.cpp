// The older transfer document: every instance of every group in order,
// under its class name.

#include "model/CClassicXml.h"
#include "model/CXmlFile.h"
#include "model/XmlLength.h"

namespace kivreg {

void CClassicXml::reset(std::u16string type, std::u16string version, const CXmlFile* file) {
    m_type = std::move(type);
    m_version = std::move(version);
    m_file = file;
    m_text.clear();
}

template <typename Out>
void CClassicXml::render(Out& out) const {
    putAttribute(out, u"<qordata type=\"", m_type);
    putAttribute(out, u" version=\"", m_version);
    out += u'>';
    if (m_file != nullptr) {
        for (const CGroup& g : m_file->groups())
            for (const CClass& c : g.classes())
                for (const CInst& inst : c.instances()) renderInstance(out, c, inst);
    }
    out += u"</qordata>";
}

template <typename Out>
void CClassicXml::renderInstance(Out& out, const CClass& c, const CInst& inst) {
    putAttribute(out, u"<instance classname=\"", c.getName());
    putAttributeIfSet(out, u" inst_id=\"", inst.getId());
    out += u'>';
    for (const CProp& prop : inst.properties()) {
        putAttribute(out, u"<property name=\"", prop.getName());
        out += u'>';
        for (std::u16string_view v : prop.values()) {
            out += u"<value>";
            out += v;
            out += u"</value>";
        }
        out += u"</property>";
    }
    for (const CRef& ref : inst.references()) {
        putAttribute(out, u"<reference rolename=\"", ref.getRoleName());
        putAttribute(out, u" classname=\"", ref.getClassName());
        // The old format always writes the target id, empty or not.
        putAttribute(out, u" inst_id=\"", ref.getInstId());
        out += u"/>";
    }
    out += u"</instance>";
}

void CClassicXml::parse() {
    XmlLength length;
    render(length);
    m_text.clear();
    m_text.reserve(length.units);
    render(m_text);
}

const std::u16string& CClassicXml::getXml() {
    if (m_text.empty()) parse();
    return m_text;
}

std::u16string CClassicXml::takeXml() && {
    getXml();
    return std::move(m_text);
}

// Every output the documents are written into.
template void CClassicXml::render(std::u16string&) const;
template void CClassicXml::render(XmlLength&) const;
template void CClassicXml::render(Utf8Out&) const;
template void CClassicXml::render(Utf8Length&) const;

}  // namespace kivreg
