#pragma once
// One XML attribute of a model element: the value the supplier gave, the
// default that stands in for a missing value, and the values it admits.

#include <string>
#include <vector>

namespace kivreg {

class CAttr {
public:
    CAttr() = default;
    CAttr(std::u16string name, std::u16string value)
        : m_name(std::move(name)), m_value(std::move(value)) {}
    CAttr(std::u16string name, std::u16string value, std::u16string defaultValue)
        : m_name(std::move(name)), m_value(std::move(value)), m_default(std::move(defaultValue)) {}
    explicit CAttr(const CAttr* other) : CAttr(*other) {}
    CAttr& operator=(const CAttr* other) { return *this = *other; }

    void addAllowedValue(std::u16string value) { m_allowed.push_back(std::move(value)); }

    const std::u16string& getName() const { return m_name; }
    void setName(std::u16string name) { m_name = std::move(name); }
    void setValue(std::u16string value) { m_value = std::move(value); }
    // The given value, or the default when none was given.
    const std::u16string& getValue() const { return m_value.empty() ? m_default : m_value; }
    const std::u16string& getDefaultValue() const { return m_default; }
    const std::vector<std::u16string>& getAllowedValues() const { return m_allowed; }

    bool isValidValue(const std::u16string& value) const;
    bool isValid() const;
    // Attribute names match ignoring case.
    bool operator==(const std::u16string& name) const;

private:
    std::u16string m_name;
    std::u16string m_value;
    std::u16string m_default;
    std::vector<std::u16string> m_allowed;
};

}  // namespace kivreg
