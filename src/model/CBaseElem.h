#pragma once
// What groups and classes have in common: the ordered attribute list.

#include <string>
#include <string_view>
#include <vector>

#include "model/CAttr.h"

namespace kivreg {

class CLog;

class CBaseElem {
public:
    using AttrList = std::vector<CAttr>;

    void addAttribute(CAttr attr) { m_attributes.push_back(std::move(attr)); }

    const AttrList& attributes() const { return m_attributes; }
    AttrList& attributes() { return m_attributes; }

    // Logs every attribute that is not valid; true when none failed.
    bool validateAttributes(CLog* log) const;

private:
    AttrList m_attributes;
};

}  // namespace kivreg
