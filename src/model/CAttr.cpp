#include "model/CAttr.h"

#include <algorithm>

#include "support/LowerCase.h"

namespace kivreg {

bool CAttr::isValidValue(const std::u16string& value) const {
    return m_allowed.empty() ||
           std::find(m_allowed.begin(), m_allowed.end(), value) != m_allowed.end();
}

bool CAttr::isValid() const {
    if (m_name.empty()) return false;
    // A value the supplier gave is taken as it stands; only the default is
    // held against the allowed list.
    if (!m_value.empty()) return true;
    return isValidValue(m_default);
}

bool CAttr::operator==(const std::u16string& name) const {
    return equalsIgnoreCase(m_name, name);
}

}  // namespace kivreg
