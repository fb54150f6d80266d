#pragma once
// Properties and references are listed in the order of their names' 16-bit
// code units. Compared as UTF-8 bytes, names order by code point instead, and
// the two orders differ in one place: a character above U+FFFF is a pair of
// units from U+D800, so it sorts below U+E000 to U+FFFF in 16-bit units but
// above them by code point. Their UTF-8 lead bytes (EE and EF against F0 to
// F4) are the only bytes whose order must turn round.

#include <algorithm>
#include <cstring>
#include <string_view>

namespace kivreg {

// Negative, zero or positive as a sorts before, with or after b in 16-bit units.
inline int compareUtf16Order(std::string_view a, std::string_view b) {
    const size_t n = std::min(a.size(), b.size());
    const auto* x = reinterpret_cast<const unsigned char*>(a.data());
    const auto* y = reinterpret_cast<const unsigned char*>(b.data());
    size_t i = 0;
    // The first difference lies at the same place in both: both start a
    // character there, or both continue one with the same lead byte, in which
    // case byte order is unit order.
    if (n != 0 && std::memcmp(x, y, n) != 0)
        while (x[i] == y[i]) ++i;
    else
        i = n;
    if (i == n) return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
    const auto key = [](unsigned char c) { return c >= 0xEE && c <= 0xEF ? c + 0x10 : c + 0; };
    return key(x[i]) - key(y[i]);
}

inline bool lessUtf16Order(std::string_view a, std::string_view b) {
    return compareUtf16Order(a, b) < 0;
}

}  // namespace kivreg
