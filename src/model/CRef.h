#pragma once
// A reference from an instance to another: the role it plays and the group,
// class and instance id of the instance referred to.

#include <string>

namespace kivreg {

class CRef {
public:
    CRef() = default;
    CRef(std::u16string roleName, std::u16string groupName, std::u16string className,
         std::u16string instId)
        : m_roleName(std::move(roleName)),
          m_groupName(std::move(groupName)),
          m_className(std::move(className)),
          m_instId(std::move(instId)) {}
    explicit CRef(const CRef* other) : CRef(*other) {}

    const std::u16string& getRoleName() const { return m_roleName; }
    const std::u16string& getGroupName() const { return m_groupName; }
    const std::u16string& getClassName() const { return m_className; }
    const std::u16string& getInstId() const { return m_instId; }

    // Role, class and instance id are all set; the group does not count.
    bool isInitial() const {
        return !m_roleName.empty() && !m_className.empty() && !m_instId.empty();
    }

    // Writes the element into a string or an XmlLength.
    template <typename Out>
    void render(Out& out) const;

private:
    std::u16string m_roleName;
    std::u16string m_groupName;
    std::u16string m_className;
    std::u16string m_instId;
};

}  // namespace kivreg
