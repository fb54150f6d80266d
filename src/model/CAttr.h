#pragma once
// One XML attribute of a model element: the value the supplier gave, the
// default that stands in for a missing value, and the values it admits. All
// texts are UTF-8.

#include <string>
#include <string_view>
#include <vector>

namespace kivreg {

class CAttr {
public:
    CAttr() = default;
    CAttr(std::string name, std::string value)
        : m_name(std::move(name)), m_value(std::move(value)) {}
    CAttr(std::string name, std::string value, std::string defaultValue)
        : m_name(std::move(name)), m_value(std::move(value)), m_default(std::move(defaultValue)) {}

    void addAllowedValue(std::string value) { m_allowed.push_back(std::move(value)); }

    const std::string& getName() const { return m_name; }
    void setValue(std::string value) { m_value = std::move(value); }
    // The given value, or the default when none was given.
    const std::string& getValue() const { return m_value.empty() ? m_default : m_value; }

    bool isValid() const;

private:
    std::string m_name;
    std::string m_value;
    std::string m_default;
    std::vector<std::string> m_allowed;
};

}  // namespace kivreg
