#include "http/ParValDictionary.h"

#include <algorithm>
#include <new>
#include <span>

namespace kivreg {

namespace {

struct Syntax {
    std::u16string itemSeparator;
    std::u16string nameValueSeparators;
    std::u16string whiteSpace;
};

struct Flags {
    bool trim;
    bool unquote;
    bool keepBare;
};

std::u16string_view trimmed(std::u16string_view s, std::u16string_view white) {
    const size_t first = s.find_first_not_of(white);
    if (first == std::u16string_view::npos) return {};
    return s.substr(first, s.find_last_not_of(white) - first + 1);
}

// Splits at `separator` (a whole string) outside double quotes when quotes count.
std::vector<std::u16string_view> split(std::u16string_view text, std::u16string_view separator,
                                       bool quotes) {
    std::vector<std::u16string_view> parts;
    if (separator.empty()) {
        parts.push_back(text);
        return parts;
    }
    bool inQuotes = false;
    size_t start = 0;
    for (size_t i = 0; i < text.size();) {
        if (quotes && text[i] == u'"') inQuotes = !inQuotes;
        if (!inQuotes && text.compare(i, separator.size(), separator) == 0) {
            parts.push_back(text.substr(start, i - start));
            i += separator.size();
            start = i;
        } else {
            ++i;
        }
    }
    parts.push_back(text.substr(start));
    return parts;
}

DicVecLine parse(std::u16string_view line, const Syntax& syntax, const Flags& flags) {
    DicVecLine out;
    out.line = line;
    for (std::u16string_view item : split(line, syntax.itemSeparator, flags.unquote)) {
        const size_t sep = item.find_first_of(syntax.nameValueSeparators);
        std::u16string_view name = item.substr(0, sep);
        std::u16string_view value =
            sep == std::u16string_view::npos ? std::u16string_view() : item.substr(sep + 1);
        if (flags.trim) {
            name = trimmed(name, syntax.whiteSpace);
            value = trimmed(value, syntax.whiteSpace);
        }
        if (flags.unquote && value.size() >= 2 && value.front() == u'"' && value.back() == u'"')
            value = value.substr(1, value.size() - 2);
        if (name.empty() && value.empty()) continue;
        if (sep == std::u16string_view::npos && !flags.keepBare) continue;
        out.items.push_back({std::u16string(name), std::u16string(value)});
    }
    return out;
}

template <typename Lines>
const char16_t* find(const Lines& lines, std::u16string_view key, bool ignoreCase, bool byName) {
    for (const DicVecLine& line : lines)
        for (const DicVecLine::Item& item : line.items)
            if (const std::u16string& text = byName ? item.name : item.value;
                ignoreCase ? equalsIgnoreCase(text, key) : text == key)
                return (byName ? item.value : item.name).c_str();
    return nullptr;
}

class ParValDictionary final : public IParValDictionary {
public:
    ParValDictionary(Syntax syntax, Flags flags) : m_syntax(std::move(syntax)), m_flags(flags) {}
    void reset() override { m_line = {}; }
    int parseLine(std::u16string_view line, bool trim, bool unquote) override {
        m_line = parse(line, m_syntax, {trim, unquote, m_flags.keepBare});
        return static_cast<int>(m_line.items.size());
    }
    int parseLine(std::u16string_view line) override {
        return parseLine(line, m_flags.trim, m_flags.unquote);
    }
    const char16_t* fetchVal(std::u16string_view name, bool ignoreCase) const override {
        return find(std::span(&m_line, 1), name, ignoreCase, true);
    }
    const char16_t* fetchPar(std::u16string_view value, bool ignoreCase) const override {
        return find(std::span(&m_line, 1), value, ignoreCase, false);
    }
    const DicVecLine& getLine() const override { return m_line; }

private:
    Syntax m_syntax;
    Flags m_flags;
    DicVecLine m_line;
};

class ParValMultilineDictionary final : public IParValMultilineDictionary {
public:
    ParValMultilineDictionary(std::u16string lineSeparator, Syntax syntax, Flags flags)
        : m_lineSeparator(std::move(lineSeparator)), m_syntax(std::move(syntax)), m_flags(flags) {}
    void reset() override { m_lines.clear(); }
    int parseMultiline(std::u16string_view text, bool trim, bool unquote, bool keepBare) override {
        m_lines.clear();
        for (std::u16string_view line : split(text, m_lineSeparator, false))
            if (!line.empty()) m_lines.push_back(parse(line, m_syntax, {trim, unquote, keepBare}));
        return static_cast<int>(m_lines.size());
    }
    int parseMultiline(std::u16string_view text) override {
        return parseMultiline(text, m_flags.trim, m_flags.unquote, m_flags.keepBare);
    }
    const char16_t* fetchVal(std::u16string_view name, bool ignoreCase) const override {
        return find(m_lines, name, ignoreCase, true);
    }
    const char16_t* fetchPar(std::u16string_view value, bool ignoreCase) const override {
        return find(m_lines, value, ignoreCase, false);
    }
    const std::vector<DicVecLine>& getBlock() const override { return m_lines; }

private:
    std::u16string m_lineSeparator;
    Syntax m_syntax;
    Flags m_flags;
    std::vector<DicVecLine> m_lines;
};

}  // namespace

int createIParValDictionary(std::unique_ptr<IParValDictionary>& out,
                            std::u16string_view itemSeparator,
                            std::u16string_view nameValueSeparators, std::u16string_view whiteSpace,
                            bool trim, bool unquote, bool keepBare) {
    out.reset(new (std::nothrow) ParValDictionary(
        Syntax{std::u16string(itemSeparator), std::u16string(nameValueSeparators),
               std::u16string(whiteSpace)},
        Flags{trim, unquote, keepBare}));
    return out ? 0 : -1;
}

int createIParValMultilineDictionary(std::unique_ptr<IParValMultilineDictionary>& out,
                                     std::u16string_view lineSeparator,
                                     std::u16string_view itemSeparator,
                                     std::u16string_view nameValueSeparators,
                                     std::u16string_view whiteSpace, bool trim, bool unquote,
                                     bool keepBare) {
    if (lineSeparator.empty()) return -1;
    out.reset(new (std::nothrow) ParValMultilineDictionary(
        std::u16string(lineSeparator),
        Syntax{std::u16string(itemSeparator), std::u16string(nameValueSeparators),
               std::u16string(whiteSpace)},
        Flags{trim, unquote, keepBare}));
    return out ? 0 : -1;
}

}  // namespace kivreg
