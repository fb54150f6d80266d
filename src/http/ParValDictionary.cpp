#include "http/ParValDictionary.h"

#include <new>
#include <vector>

namespace kivreg {

namespace {

struct Item {
    std::u16string name;
    std::u16string value;
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

class ParValMultilineDictionary final : public IParValMultilineDictionary {
public:
    ParValMultilineDictionary(std::u16string_view lineSeparator, std::u16string_view itemSeparator,
                              std::u16string_view nameValueSeparators,
                              std::u16string_view whiteSpace)
        : m_lineSeparator(lineSeparator),
          m_itemSeparator(itemSeparator),
          m_nameValueSeparators(nameValueSeparators),
          m_whiteSpace(whiteSpace) {}

    void parseMultiline(std::u16string_view text) override {
        m_items.clear();
        for (std::u16string_view line : split(text, m_lineSeparator, false))
            for (std::u16string_view item : split(line, m_itemSeparator, true)) parseItem(item);
    }

    const char16_t* fetchVal(std::u16string_view name) const override {
        for (const Item& item : m_items)
            if (equalsIgnoreCase(item.name, name)) return item.value.c_str();
        return nullptr;
    }

private:
    void parseItem(std::u16string_view item) {
        const size_t sep = item.find_first_of(m_nameValueSeparators);
        const std::u16string_view name = trimmed(item.substr(0, sep), m_whiteSpace);
        std::u16string_view value =
            trimmed(sep == std::u16string_view::npos ? std::u16string_view() : item.substr(sep + 1),
                    m_whiteSpace);
        if (value.size() >= 2 && value.front() == u'"' && value.back() == u'"')
            value = value.substr(1, value.size() - 2);
        m_items.push_back({std::u16string(name), std::u16string(value)});
    }

    std::u16string m_lineSeparator;
    std::u16string m_itemSeparator;
    std::u16string m_nameValueSeparators;
    std::u16string m_whiteSpace;
    std::vector<Item> m_items;  // of all lines, in order
};

}  // namespace

int createIParValMultilineDictionary(std::unique_ptr<IParValMultilineDictionary>& out,
                                     std::u16string_view lineSeparator,
                                     std::u16string_view itemSeparator,
                                     std::u16string_view nameValueSeparators,
                                     std::u16string_view whiteSpace) {
    if (lineSeparator.empty()) return -1;
    out.reset(new (std::nothrow) ParValMultilineDictionary(lineSeparator, itemSeparator,
                                                           nameValueSeparators, whiteSpace));
    return out ? 0 : -1;
}

}  // namespace kivreg
