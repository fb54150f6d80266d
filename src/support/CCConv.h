#pragma once
// Text conversion between UTF-8, the library's 16-bit strings and 4-byte
// strings, and the few string edits the library needs. Every conversion
// records the conversion service's code in m_qorRc and throws ERegExcept of
// type EREG_CONVERSION on malformed input, with the text of the call that
// failed followed by the code.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "support/ERegExcept.h"

namespace kivreg {

class CCConv {
public:
    CCConv() = delete;

    // Code of the most recent conversion (0 = success).
    static int32_t m_qorRc;

    // Lengths up to the terminating zero: bytes, or units times unit size.
    static size_t getUtf8Bytes(const unsigned char* s);
    static size_t getUtf16Bytes(const char16_t* s);
    static size_t getU4Bytes(const char32_t* s);

    // NUL-terminated input (a null pointer reads as empty).
    static std::u16string convertUTF8toUC(const unsigned char* s);
    static std::u16string Utf8ToUc(const unsigned char* s, size_t length);
    static std::string convertUCtoUTF8(const char16_t* s);
    static std::string UcToUtf8(const char16_t* s);
    static std::u16string fromUTF8Str(const unsigned char* s);

    // Counted input.
    static std::string toUTF8Str(std::u16string_view s);
    static std::u16string fromUTF8Str(std::string_view s);
    static std::string U4ToUtf8(const char32_t* s, size_t count);
    static std::string Utf16ToUtf8(const char16_t* s, size_t count);
    static std::u32string Utf8ToU4(const unsigned char* s, size_t count);
    static std::u16string Utf8ToUtf16(const unsigned char* s, size_t count);

    // Between 4-byte text (as an XML library may hand it out) and 16-bit text.
    static std::u16string fromUCS2Str(std::u32string_view s);
    static std::u32string toUCS2Str(std::u16string_view s);

    // Blanks (U+0020 only) off both ends.
    static std::u16string trim(std::u16string_view s);
    // One copy of pattern off the start, then one off the end.
    static std::u16string trim(std::u16string_view s, std::u16string_view pattern);
    // Runs of blanks become one blank, then trim.
    static std::u16string condense(std::u16string_view s);
    // Every search replaced left to right; an inserted replacement is not rescanned.
    static std::u16string stringSubstituteAll(std::u16string_view s, std::u16string_view search,
                                              std::u16string_view replacement);
    // Splits at the first delimiter; false (outputs untouched) when there is none.
    static bool chop(std::u16string_view s, std::u16string_view delimiter, std::u16string& left,
                     std::u16string& right);
};

}  // namespace kivreg
