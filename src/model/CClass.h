#pragma once
// A class of a group in one of three kinds, holding its instances in order.

#include <string>
#include <vector>

#include "model/CBaseElem.h"
#include "model/CInst.h"

namespace kivreg {

class CClass : public CXmlElem<CClass> {
public:
    using InstList = std::vector<CInst>;

    // Kind codes; any other code is carried along and shows up in the output.
    static constexpr int TYPE_CLASS = 0;
    static constexpr int TYPE_ROOT_CLASS = 1;
    static constexpr int TYPE_MEMBER_CLASS = 2;

    CClass() = default;
    CClass(std::u16string name, int type) : m_name(std::move(name)), m_type(type) {}

    const std::u16string& getName() const { return m_name; }
    int getTypeCode() const { return m_type; }
    // "Class", "Root class", "Member class", or empty for an unknown kind.
    std::u16string getType() const;

    void addInst(const CInst* inst) { m_instances.push_back(*inst); }
    void addInst(CInst&& inst) { m_instances.push_back(std::move(inst)); }
    size_t getInstanceCount() const { return m_instances.size(); }
    InstList::const_iterator getInstanceIterator() const { return m_instances.begin(); }
    InstList::const_iterator getInstanceEnd() const { return m_instances.end(); }
    InstList::iterator getInstanceChangeIterator() { return m_instances.begin(); }
    InstList::iterator getInstanceChangeEnd() { return m_instances.end(); }
    const InstList& instances() const { return m_instances; }
    InstList& instances() { return m_instances; }

    // Writes the element into a string or an XmlLength.
    template <typename Out>
    void render(Out& out) const;

private:
    std::u16string m_name;
    InstList m_instances;
    int m_type = TYPE_CLASS;
};

}  // namespace kivreg
