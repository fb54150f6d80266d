// The data trace: the whole model, as loaded and as it will be sent, written
// to the log.

#include "model/CXmlFile.h"
#include "support/CLog.h"

namespace kivreg {

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
                for (const CProp& prop : inst.properties()) {
                    log << timestamp << u"    Property: " << prop.getName() << endlog;
                    if (!prop.getSourceformat().empty())
                        log << timestamp << u"      Source format: " << prop.getSourceformat()
                            << endlog;
                    for (std::u16string_view v : prop.values()) {
                        log << timestamp << u"      Parsed Value: " << v << endlog;
                        escaped.clear();
                        CProp::appendEscaped(escaped, v);
                        log << timestamp << u"      Output Value: " << escaped << endlog;
                    }
                }
                for (const CRef& ref : inst.references()) {
                    log << timestamp << u"    Reference (role): " << ref.getRoleName() << endlog;
                    log << timestamp << u"      Group/Class/instId  : " << ref.getGroupName()
                        << u"/" << ref.getClassName() << u"/" << ref.getInstId() << endlog;
                }
            }
        }
    }
}

}  // namespace kivreg
