#pragma once
// Case-insensitive matching as option names, attribute names and HTTP words
// have always had it: only ASCII and Latin-1 capitals fold, one 16-bit unit
// at a time.

#include <algorithm>
#include <string_view>

namespace kivreg {

constexpr char16_t toLowerLatin1(char16_t c) {
    if (c >= u'A' && c <= u'Z') return static_cast<char16_t>(c + 32);
    // Latin-1 capitals (U+00C0 to U+00DE, except the multiplication sign)
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return static_cast<char16_t>(c + 32);
    return c;
}

inline bool equalsIgnoreCase(std::u16string_view a, std::u16string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](char16_t x, char16_t y) { return toLowerLatin1(x) == toLowerLatin1(y); });
}

}  // namespace kivreg
