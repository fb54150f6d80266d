// The data trace: the whole model, as loaded and as it will be sent, written
// to the log.

#include "model/CXmlFile.h"
#include "model/Utf8Log.h"
#include "support/CLog.h"

namespace kivreg {

void CXmlFile::write2File() const {
    CLog& log = *m_log;
    log << timestamp << u"Supplier Name: " << Utf8(m_supplierName) << endlog;
    log << timestamp << u"Supplier Version: " << Utf8(m_supplierVersion) << endlog;
    log << timestamp << u"Supplier Vendor: " << Utf8(m_supplierVendor) << endlog;
    log << timestamp << u"Model Version: " << Utf8(m_modelVersion) << endlog;
    auto attributes = [&](const CBaseElem& elem) {
        for (const CAttr& a : elem.attributes())
            log << timestamp << u"  Attribute: " << Utf8(a.getName()) << u": " << Utf8(a.getValue())
                << endlog;
    };
    for (const CGroup& g : m_groups) {
        log << timestamp << u"Group Name: " << Utf8(g.getName()) << u"[Class count: "
            << g.classes().size() << u"]" << endlog;
        attributes(g);
        for (const CClass& c : g.classes()) {
            log << timestamp << c.getType() << u" name: " << Utf8(c.getName())
                << u"[Instances count: " << c.instances().size() << u"]" << endlog;
            attributes(c);
            size_t number = 0;
            for (const CInst& inst : c.instances()) {
                log << timestamp << u"  Instance Number: " << number++ << endlog;
                for (const CProp& prop : inst.properties()) {
                    log << timestamp << u"    Property: " << Utf8(prop.getName()) << endlog;
                    if (!prop.getSourceformat().empty())
                        log << timestamp << u"      Source format: " << Utf8(prop.getSourceformat())
                            << endlog;
                    for (std::string_view v : prop.values()) {
                        log << timestamp << u"      Parsed Value: " << Utf8(v) << endlog;
                        log << timestamp << u"      Output Value: " << Utf8(CProp::escapeXML(v))
                            << endlog;
                    }
                }
                for (const CRef& ref : inst.references()) {
                    log << timestamp << u"    Reference (role): " << Utf8(ref.getRoleName())
                        << endlog;
                    log << timestamp << u"      Group/Class/instId  : " << Utf8(ref.getGroupName())
                        << u"/" << Utf8(ref.getClassName()) << u"/" << Utf8(ref.getInstId())
                        << endlog;
                }
            }
        }
    }
}

}  // namespace kivreg
