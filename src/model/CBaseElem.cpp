#include "model/CBaseElem.h"

#include <algorithm>

#include "support/CLog.h"

namespace kivreg {

CBaseElem::AttrList::const_iterator CBaseElem::getAttribute(const std::u16string& name) const {
    return std::find_if(m_attributes.begin(), m_attributes.end(),
                        [&](const CAttr& a) { return a == name; });
}

std::u16string CBaseElem::getAttributeValue(const std::u16string& name) const {
    auto it = getAttribute(name);
    return it == m_attributes.end() ? std::u16string() : it->getValue();
}

bool CBaseElem::validateAttributes(CLog* log) const {
    bool ok = true;
    for (const CAttr& a : m_attributes) {
        if (a.isValid()) continue;
        ok = false;
        if (log != nullptr)
            *log << timestamp << u"Attribute '" << a.getName() << u"' has invalid value '"
                 << a.getValue() << u"' assigned." << endlog;
    }
    return ok;
}

}  // namespace kivreg
