// The two transfer bodies and the data trace dump.

#include "model/CClassicXml.h"
#include "model/CXmlFile.h"
#include "model/XmlLength.h"
#include "support/CLog.h"

namespace kivreg {

// ---- transfer document

const std::u16string& CXmlFile::getBody() {
    if (m_body.empty()) {
        if (m_oldTransferDtd)
            createBodyOld();
        else
            createBody();
    }
    return m_body;
}

template <typename Out>
void CXmlFile::renderBody(Out& out) const {
    putAttribute(out, u"<kivinfo supplier_name=\"", m_supplierName);
    putAttributeIfSet(out, u" supplier_version=\"", m_supplierVersion);
    putAttributeIfSet(out, u" supplier_vendor=\"", m_supplierVendor);
    putAttributeIfSet(out, u" model_version=\"", m_modelVersion);
    out += u'>';
    for (const CGroup& g : m_groups) g.render(out);
    out += u"</kivinfo>";
}

void CXmlFile::createBody() {
    m_body.clear();
    if (m_oldTransferDtd) return;
    // Measured first, so that a large body is allocated once and never copied.
    XmlLength length;
    renderBody(length);
    m_body.reserve(length.units);
    renderBody(m_body);
}

bool CXmlFile::appendBodyUtf8(std::string& out) const {
    const auto render = [&](auto& sink) {
        if (m_oldTransferDtd)
            CClassicXml(m_supplierName, m_supplierVersion, this).render(sink);
        else
            renderBody(sink);
    };
    Utf8Length length;
    render(length);
    out.reserve(out.size() + length.bytes);
    Utf8Out bytes{out};
    render(bytes);
    return !bytes.malformed;
}

void CXmlFile::createBodyOld() {
    m_body.clear();
    if (!m_oldTransferDtd) return;
    CClassicXml classic(m_supplierName, m_supplierVersion, this);
    m_body = std::move(classic).takeXml();
}

// ---- old transfer document

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
    for (const auto& [name, prop] : inst.properties()) {
        putAttribute(out, u"<property name=\"", name);
        out += u'>';
        for (const std::u16string& v : prop.values()) {
            out += u"<value>";
            out += v;
            out += u"</value>";
        }
        out += u"</property>";
    }
    for (const auto& [role, ref] : inst.references()) {
        putAttribute(out, u"<reference rolename=\"", role);
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

// ---- data trace

void CXmlFile::write2File() const {
    CLog& log = *m_log;
    log << timestamp << u"Supplier Name: " << m_supplierName << endlog;
    log << timestamp << u"Supplier Version: " << m_supplierVersion << endlog;
    log << timestamp << u"Supplier Vendor: " << m_supplierVendor << endlog;
    log << timestamp << u"Model Version: " << m_modelVersion << endlog;
    auto attributes = [&](const CBaseElem& elem) {
        for (const CAttr& a : elem.attributes())
            log << timestamp << u"  Attribute: " << a.getName() << u": " << a.getValue() << endlog;
    };
    std::u16string escaped;
    for (const CGroup& g : m_groups) {
        log << timestamp << u"Group Name: " << g.getName() << u"[Class count: " << g.getClassCount()
            << u"]" << endlog;
        attributes(g);
        for (const CClass& c : g.classes()) {
            log << timestamp << c.getType() << u" name: " << c.getName() << u"[Instances count: "
                << c.getInstanceCount() << u"]" << endlog;
            attributes(c);
            size_t number = 0;
            for (const CInst& inst : c.instances()) {
                log << timestamp << u"  Instance Number: " << number++ << endlog;
                for (const auto& [name, prop] : inst.properties()) {
                    log << timestamp << u"    Property: " << name << endlog;
                    if (!prop.getSourceformat().empty())
                        log << timestamp << u"      Source format: " << prop.getSourceformat()
                            << endlog;
                    for (const std::u16string& v : prop.values()) {
                        log << timestamp << u"      Parsed Value: " << v << endlog;
                        escaped.clear();
                        CProp::appendEscaped(escaped, v);
                        log << timestamp << u"      Output Value: " << escaped << endlog;
                    }
                }
                for (const auto& [role, ref] : inst.references()) {
                    log << timestamp << u"    Reference (role): " << role << endlog;
                    log << timestamp << u"      Group/Class/instId  : " << ref.getGroupName()
                        << u"/" << ref.getClassName() << u"/" << ref.getInstId() << endlog;
                }
            }
        }
    }
}

}  // namespace kivreg
