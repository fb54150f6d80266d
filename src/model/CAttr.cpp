#include "model/CAttr.h"

#include <algorithm>

#include "runtime/textconv.h"
#include "support/LowerCase.h"

namespace kivreg {

bool CAttr::isValid() const {
    if (m_name.empty()) return false;
    // A value the supplier gave is taken as it stands; only the default is
    // held against the allowed list.
    if (!m_value.empty()) return true;
    return m_allowed.empty() ||
           std::find(m_allowed.begin(), m_allowed.end(), m_default) != m_allowed.end();
}

bool CAttr::operator==(std::string_view name) const {
    // Folding is defined on 16-bit units; names are short and rarely looked up.
    std::u16string a, b;
    rt::utf8ToUtf16Lenient(m_name, a);
    rt::utf8ToUtf16Lenient(name, b);
    return equalsIgnoreCase(a, b);
}

}  // namespace kivreg
