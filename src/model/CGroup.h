#pragma once
// A group of classes, in insertion order (duplicates allowed).

#include <string>
#include <string_view>
#include <vector>

#include "model/CBaseElem.h"
#include "model/CClass.h"

namespace kivreg {

class CGroup : public CBaseElem {
public:
    using ClassList = std::vector<CClass>;

    CGroup() = default;
    explicit CGroup(std::string name) : m_name(std::move(name)) {}

    const std::string& getName() const { return m_name; }

    void addClass(CClass cls) { m_classes.push_back(std::move(cls)); }
    const ClassList& classes() const { return m_classes; }
    ClassList& classes() { return m_classes; }

private:
    std::string m_name;
    ClassList m_classes;
};

}  // namespace kivreg
