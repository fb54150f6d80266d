#pragma once
// A reference from an instance to another: the role it plays and the group,
// class and instance id of the instance referred to. Role, group and class
// are references to the text store's names.

#include <string>

#include "model/CTextStore.h"

namespace kivreg {

class CRef {
public:
    CRef() = default;
    CRef(const std::u16string* roleName, const std::u16string* groupName,
         const std::u16string* className, std::u16string instId)
        : m_roleName(roleName),
          m_groupName(groupName),
          m_className(className),
          m_instId(std::move(instId)) {}
    explicit CRef(const CRef* other) : CRef(*other) {}

    const std::u16string& getRoleName() const { return *m_roleName; }
    const std::u16string& getGroupName() const { return *m_groupName; }
    const std::u16string& getClassName() const { return *m_className; }
    const std::u16string& getInstId() const { return m_instId; }

    // Role, class and instance id are all set; the group does not count.
    bool isInitial() const {
        return !m_roleName->empty() && !m_className->empty() && !m_instId.empty();
    }

    // Writes the element into a string or an XmlLength.
    template <typename Out>
    void render(Out& out) const;

private:
    const std::u16string* m_roleName = &CTextStore::none();
    const std::u16string* m_groupName = &CTextStore::none();
    const std::u16string* m_className = &CTextStore::none();
    std::u16string m_instId;
};

}  // namespace kivreg
