#include "model/CAttr.h"

#include <algorithm>

#include "api/CPArgs.h"

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
    return std::equal(m_name.begin(), m_name.end(), name.begin(), name.end(),
                      [](char16_t a, char16_t b) {
                          return CPArgs::convertToLower(a) == CPArgs::convertToLower(b);
                      });
}

}  // namespace kivreg
