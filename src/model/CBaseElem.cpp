#include "model/CBaseElem.h"

#include "model/Utf8Log.h"
#include "support/CLog.h"

namespace kivreg {

bool CBaseElem::validateAttributes(CLog* log) const {
    bool ok = true;
    for (const CAttr& a : m_attributes) {
        if (a.isValid()) continue;
        ok = false;
        if (log != nullptr)
            *log << timestamp << u"Attribute '" << Utf8(a.getName()) << u"' has invalid value '"
                 << Utf8(a.getValue()) << u"' assigned." << endlog;
    }
    return ok;
}

}  // namespace kivreg
