// The transfer body in the current format (groups, classes with their kind,
// instances), in 16-bit text or straight in UTF-8, and the choice between it
// and the older format.

#include "model/CClassicXml.h"
#include "model/CXmlFile.h"
#include "model/XmlLength.h"

namespace kivreg {

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

}  // namespace kivreg
