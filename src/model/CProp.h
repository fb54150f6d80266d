#pragma once
// A property of an instance: a name, a free-text source format and its
// values, all UTF-8 views into the document's text store.

#include <span>
#include <string>
#include <string_view>

namespace kivreg {

class CProp {
public:
    CProp() = default;
    CProp(std::string_view name, std::string_view sourceformat, std::span<std::string_view> values)
        : m_name(name), m_sourceformat(sourceformat), m_values(values) {}

    std::string_view getName() const { return m_name; }
    std::string_view getSourceformat() const { return m_sourceformat; }
    void setSourceformat(std::string_view format) { m_sourceformat = format; }
    std::span<const std::string_view> values() const { return m_values; }
    std::span<std::string_view> values() { return m_values; }

    // The value with the five markup characters replaced by their entities;
    // everything else, an existing entity included, is copied as it is.
    static std::string escapeXML(std::string_view value);

private:
    std::string_view m_name;
    std::string_view m_sourceformat;
    std::span<std::string_view> m_values;
};

}  // namespace kivreg
