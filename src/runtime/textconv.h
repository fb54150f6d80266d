#pragma once
// The conversion service beneath CCConv: UTF-8 and UTF-16 in one pass
// each, strict about malformed input. Results are appended to `out`; on a
// failure `out` holds what was converted before the fault.
//
// Return codes (0 = success), shared by every function here:

#include <cstddef>
#include <string>
#include <string_view>

namespace kivreg::rt {

enum ConvRc : int {
    CONV_OK = 0,
    CONV_TRUNCATED = 1,         // a multi-byte sequence or surrogate pair is cut off
    CONV_BAD_BYTE = 2,          // a byte that cannot start a sequence (0x80-0xBF, 0xF8-0xFF)
    CONV_BAD_CONTINUATION = 3,  // a lead byte not followed by enough 10xxxxxx bytes
    CONV_OVERLONG = 4,          // a code point encoded in more bytes than needed
    CONV_SURROGATE = 5,         // UTF-8 or UTF-32 carrying a surrogate code point
    CONV_TOO_LARGE = 6,         // a code point above U+10FFFF
    CONV_LONE_SURROGATE = 7,    // UTF-16 with an unpaired surrogate
};

int utf8ToUtf16(std::string_view in, std::u16string& out);
int utf16ToUtf8(std::u16string_view in, std::string& out);

// At least the bytes utf16ToUtf8 appends for this text (exact without pairs,
// which it counts two bytes high); a buffer reserved to the sum over the
// pieces of a text never grows while they are appended one by one.
size_t utf8SizeBound(std::u16string_view in);

// The 16-bit units of a UTF-8 text: exact for well-formed text, and at least
// what utf8ToUtf16 appends for any text.
size_t utf16Length(std::string_view in);

// For text that must always come out (log lines): malformed parts become U+FFFD.
void utf16ToUtf8Lenient(std::u16string_view in, std::string& out);
void utf8ToUtf16Lenient(std::string_view in, std::u16string& out);

}  // namespace kivreg::rt
