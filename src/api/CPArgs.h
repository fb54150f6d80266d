#pragma once
// An ordered list of command-line style options. It parses a program's
// argument vector and also holds the library's settings, under the same
// option names (see Vocabulary.h).

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kivreg {

class CPArgs {
public:
    class CPArg {
    public:
        CPArg() = default;
        explicit CPArg(std::u16string_view name) : m_name(name) {}
        CPArg(std::u16string_view name, std::u16string_view value)
            : m_name(name), m_value(value), m_hasValue(true) {}

        CPArg& operator=(std::u16string_view name) {
            m_name = name;
            return *this;
        }
        void setName(std::u16string_view name) { m_name = name; }
        void setValue(std::u16string_view value) {
            m_value = value;
            m_hasValue = true;
        }
        const std::u16string& getName() const { return m_name; }
        const std::u16string& getValue() const { return m_value; }
        bool isSet() const { return m_set; }
        bool hasValue() const { return m_hasValue; }

        bool operator==(std::u16string_view name) const { return m_name == name; }
        bool operator==(const CPArg& other) const = default;

    private:
        std::u16string m_name;
        std::u16string m_value;
        bool m_set = true;
        bool m_hasValue = false;
    };

    CPArgs() = default;
    explicit CPArgs(char16_t** argv) { addArgs(argv); }

    // Parses a NUL-terminated argument vector; argv[0] (the program) is skipped.
    void addArgs(char16_t** argv);
    // Replace any entry of that name, appending the new one at the end.
    void addSwitch(std::u16string_view name);
    void addArg(std::u16string_view name, std::u16string_view value);
    void removeArg(std::u16string_view name);

    bool isSwitchSet(std::u16string_view name) const { return find(name, false) != nullptr; }
    bool hasArg(std::u16string_view name) const { return isSwitchSet(name); }
    bool isSwitchSetIgnCase(std::u16string_view name) const { return find(name, true) != nullptr; }
    std::u16string getArg(std::u16string_view name) const;
    std::u16string getArgIgnCase(std::u16string_view name) const;

    // Whether the classic option of that name takes the next argument as its value.
    static bool takesValue(std::u16string_view name);
    static bool isNumeric(std::u16string_view text);
    // The value of a numeric text; 2147483647 for one that is not numeric.
    // Beyond the 32-bit range the result sticks at the nearer limit.
    static int32_t getNumber(std::u16string_view text);

    const std::vector<CPArg>& entries() const { return m_args; }

private:
    const CPArg* find(std::u16string_view name, bool ignoreCase) const;

    std::vector<CPArg> m_args;
};

}  // namespace kivreg
