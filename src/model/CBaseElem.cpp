#include "model/CBaseElem.h"

#include <algorithm>

#include "model/Utf8Log.h"
#include "support/CLog.h"

namespace kivreg {

CBaseElem::AttrList::const_iterator CBaseElem::getAttribute(std::string_view name) const {
    return std::find_if(m_attributes.begin(), m_attributes.end(),
                        [&](const CAttr& a) { return a == name; });
}

std::string CBaseElem::getAttributeValue(std::string_view name) const {
    auto it = getAttribute(name);
    return it == m_attributes.end() ? std::string() : it->getValue();
}

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
