#pragma once
// A reference from an instance to another: the role it plays and the group,
// class and instance id of the instance referred to (UTF-8 views into the
// document's text store).

#include <string_view>

namespace kivreg {

class CRef {
public:
    CRef() = default;
    CRef(std::string_view roleName, std::string_view groupName, std::string_view className,
         std::string_view instId)
        : m_roleName(roleName), m_groupName(groupName), m_className(className), m_instId(instId) {}

    std::string_view getRoleName() const { return m_roleName; }
    std::string_view getGroupName() const { return m_groupName; }
    std::string_view getClassName() const { return m_className; }
    std::string_view getInstId() const { return m_instId; }

private:
    std::string_view m_roleName;
    std::string_view m_groupName;
    std::string_view m_className;
    std::string_view m_instId;
};

}  // namespace kivreg
