#include "model/CAttr.h"

#include <algorithm>

namespace kivreg {

bool CAttr::isValid() const {
    if (m_name.empty()) return false;
    // A value the supplier gave is taken as it stands; only the default is
    // held against the allowed list.
    if (!m_value.empty()) return true;
    return m_allowed.empty() ||
           std::find(m_allowed.begin(), m_allowed.end(), m_default) != m_allowed.end();
}

}  // namespace kivreg
