#include "runtime/textconv.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace kivreg::rt {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isContinuation(unsigned char b) {
    return (b & 0xC0) == 0x80;
}

// Decodes one UTF-8 sequence starting at p (p < end, *p >= 0x80).
// On success stores the code point and the sequence length.
int decodeMultiByte(const unsigned char* p, const unsigned char* end, char32_t& cp, size_t& len) {
    const unsigned char b0 = p[0];
    char32_t minimum;
    if (b0 < 0xC0) return CONV_BAD_BYTE;
    if (b0 < 0xE0) {
        len = 2;
        cp = b0 & 0x1F;
        minimum = 0x80;
    } else if (b0 < 0xF0) {
        len = 3;
        cp = b0 & 0x0F;
        minimum = 0x800;
    } else if (b0 < 0xF8) {
        len = 4;
        cp = b0 & 0x07;
        minimum = 0x10000;
    } else {
        return CONV_BAD_BYTE;
    }
    const size_t avail = static_cast<size_t>(end - p);
    for (size_t i = 1; i < len; ++i) {
        if (i >= avail) return CONV_TRUNCATED;
        if (!isContinuation(p[i])) return CONV_BAD_CONTINUATION;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < minimum) return CONV_OVERLONG;
    if (cp > 0x10FFFF) return CONV_TOO_LARGE;
    if (cp >= 0xD800 && cp <= 0xDFFF) return CONV_SURROGATE;
    return CONV_OK;
}

// Runs of ASCII are the common case; test eight bytes at once.
size_t asciiPrefix(const unsigned char* p, size_t n) {
    size_t i = 0;
    while (i + 8 <= n) {
        uint64_t word;
        std::memcpy(&word, p + i, 8);
        if (word & 0x8080808080808080ULL) break;
        i += 8;
    }
    while (i < n && p[i] < 0x80) ++i;
    return i;
}

}  // namespace

// Output sizes, so that a large text is sized once and not at its worst case:
// fresh memory is paid for by the page, and three bytes per unit reserved for
// mostly-ASCII text would triple that. Both are exact for well-formed input
// and upper bounds for what the strict converters write before a fault.
size_t utf16Length(std::string_view in) {
    size_t units = 0;
    for (unsigned char b : in) {
        units += (b & 0xC0) != 0x80 ? 1 : 0;  // one unit per lead byte
        units += b >= 0xF0 ? 1 : 0;           // and a second for a pair
    }
    return units;
}

namespace {

inline char* putUtf8(char* o, char32_t cp) {
    if (cp < 0x80) {
        *o++ = static_cast<char>(cp);
    } else if (cp < 0x800) {
        *o++ = static_cast<char>(0xC0 | (cp >> 6));
        *o++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        *o++ = static_cast<char>(0xE0 | (cp >> 12));
        *o++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *o++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        *o++ = static_cast<char>(0xF0 | (cp >> 18));
        *o++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        *o++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *o++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
    return o;
}

// The decoder loop for UTF-8 input.
template <typename Unit>
int fromUtf8(std::string_view in, std::basic_string<Unit>& out, bool lenient) {
    const auto* p = reinterpret_cast<const unsigned char*>(in.data());
    const auto* end = p + in.size();
    const size_t base = out.size();
    // Lenient decoding turns each stray byte into a unit of its own, which
    // only the byte count bounds.
    const bool counted = sizeof(Unit) == 2 && !lenient;
    out.resize(base + (counted ? utf16Length(in) : in.size()));
    Unit* o = out.data() + base;
    int rc = CONV_OK;
    while (p < end) {
        const size_t run = asciiPrefix(p, static_cast<size_t>(end - p));
        for (size_t i = 0; i < run; ++i) o[i] = p[i];
        o += run;
        p += run;
        if (p == end) break;
        char32_t cp;
        size_t len;
        // Well-formed two- and three-byte forms outside the surrogate range
        // take the short path; everything else goes through the full checks.
        const unsigned char b0 = p[0];
        if (b0 >= 0xC2 && b0 < 0xE0 && end - p >= 2 && isContinuation(p[1])) {
            cp = (char32_t(b0 & 0x1F) << 6) | (p[1] & 0x3F);
            p += 2;
            *o++ = static_cast<Unit>(cp);
            continue;
        }
        if (b0 >= 0xE1 && b0 < 0xF0 && b0 != 0xED && end - p >= 3 && isContinuation(p[1]) &&
            isContinuation(p[2])) {
            cp = (char32_t(b0 & 0x0F) << 12) | (char32_t(p[1] & 0x3F) << 6) | (p[2] & 0x3F);
            p += 3;
            *o++ = static_cast<Unit>(cp);
            continue;
        }
        const int r = decodeMultiByte(p, end, cp, len);
        if (r != CONV_OK) {
            if (!lenient) {
                rc = r;
                break;
            }
            cp = kReplacement;
            len = 1;
        }
        p += len;
        if constexpr (sizeof(Unit) == 2) {
            if (cp >= 0x10000) {
                cp -= 0x10000;
                *o++ = static_cast<Unit>(0xD800 + (cp >> 10));
                *o++ = static_cast<Unit>(0xDC00 + (cp & 0x3FF));
                continue;
            }
        }
        *o++ = static_cast<Unit>(cp);
    }
    out.resize(static_cast<size_t>(o - out.data()));
    return rc;
}

int fromUtf16(std::u16string_view in, std::string& out, bool lenient) {
    const size_t base = out.size();
    out.resize(base + utf8SizeBound(in));
    char* o = out.data() + base;
    const char16_t* p = in.data();
    const char16_t* end = p + in.size();
    int rc = CONV_OK;
    while (p < end) {
        char32_t u = *p++;
        if (u < 0x80) {
            *o++ = static_cast<char>(u);
            continue;
        }
        if (u >= 0xD800 && u <= 0xDFFF) {
            if (u <= 0xDBFF && p < end && *p >= 0xDC00 && *p <= 0xDFFF) {
                u = 0x10000 + ((u - 0xD800) << 10) + (*p++ - 0xDC00);
            } else if (lenient) {
                u = kReplacement;
            } else {
                rc = (u <= 0xDBFF && p == end) ? CONV_TRUNCATED : CONV_LONE_SURROGATE;
                break;
            }
        }
        o = putUtf8(o, u);
    }
    out.resize(static_cast<size_t>(o - out.data()));
    return rc;
}

}  // namespace

int utf8ToUtf16(std::string_view in, std::u16string& out) {
    return fromUtf8(in, out, false);
}
void utf8ToUtf16Lenient(std::string_view in, std::u16string& out) {
    fromUtf8(in, out, true);
}
int utf16ToUtf8(std::u16string_view in, std::string& out) {
    return fromUtf16(in, out, false);
}
void utf16ToUtf8Lenient(std::u16string_view in, std::string& out) {
    fromUtf16(in, out, true);
}

size_t utf8SizeBound(std::u16string_view in) {
    size_t bytes = 0;
    for (char16_t u : in) bytes += u < 0x80 ? 1 : u < 0x800 ? 2 : 3;  // a pair: 3 + 3 >= 4
    return bytes;
}

}  // namespace kivreg::rt
