#pragma once
// A class of a group in one of three kinds, holding its instances in order.

#include <string>
#include <string_view>
#include <vector>

#include "model/CBaseElem.h"
#include "model/CInst.h"

namespace kivreg {

class CClass : public CBaseElem {
public:
    using InstList = std::vector<CInst>;

    // Kind codes; any other code is carried along and shows up in the output.
    static constexpr int TYPE_CLASS = 0;
    static constexpr int TYPE_ROOT_CLASS = 1;
    static constexpr int TYPE_MEMBER_CLASS = 2;

    CClass() = default;
    CClass(std::string name, int type) : m_name(std::move(name)), m_type(type) {}

    const std::string& getName() const { return m_name; }
    int getTypeCode() const { return m_type; }
    // "Class", "Root class", "Member class", or empty for an unknown kind.
    const char16_t* getType() const;

    void addInst(const CInst& inst) { m_instances.push_back(inst); }
    const InstList& instances() const { return m_instances; }
    InstList& instances() { return m_instances; }

private:
    std::string m_name;
    InstList m_instances;
    int m_type = TYPE_CLASS;
};

}  // namespace kivreg
