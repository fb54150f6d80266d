#pragma once
// A group of classes, in insertion order (duplicates allowed).

#include <string>
#include <vector>

#include "model/CBaseElem.h"
#include "model/CClass.h"

namespace kivreg {

class CGroup : public CXmlElem<CGroup> {
public:
    using ClassList = std::vector<CClass>;

    CGroup() = default;
    explicit CGroup(std::u16string name) : m_name(std::move(name)) {}
    CGroup& operator=(const CGroup* other) { return *this = *other; }

    const std::u16string& getName() const { return m_name; }

    void addClass(const CClass* cls) { m_classes.push_back(*cls); }
    void addClass(CClass&& cls) { m_classes.push_back(std::move(cls)); }
    size_t getClassCount() const { return m_classes.size(); }
    // First class of exactly this name (case counts), or getClassEnd().
    ClassList::const_iterator getClass(const std::u16string& name) const;
    ClassList::const_iterator getClassIterator() const { return m_classes.begin(); }
    ClassList::const_iterator getClassEnd() const { return m_classes.end(); }
    ClassList::iterator getClassChangeIterator() { return m_classes.begin(); }
    ClassList::iterator getClassChangeEnd() { return m_classes.end(); }
    const ClassList& classes() const { return m_classes; }
    ClassList& classes() { return m_classes; }

    // Writes the element into a string or an XmlLength.
    template <typename Out>
    void render(Out& out) const;

private:
    std::u16string m_name;
    ClassList m_classes;
};

}  // namespace kivreg
