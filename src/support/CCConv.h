#pragma once
// Text conversion between UTF-8 and the library's 16-bit strings, and the few
// string edits the library needs. A conversion throws ERegExcept of type
// EREG_CONVERSION on malformed input, with the text of the call that failed
// followed by the conversion service's code.

#include <cstddef>
#include <string>
#include <string_view>

#include "support/ERegExcept.h"

namespace kivreg {

class CCConv {
public:
    CCConv() = delete;

    static std::string toUTF8Str(std::u16string_view s);
    static std::u16string fromUTF8Str(std::string_view s);

    // Blanks (U+0020 only) off both ends.
    static std::u16string trim(std::u16string_view s);
    // Every search replaced left to right; an inserted replacement is not rescanned.
    static std::u16string stringSubstituteAll(std::u16string_view s, std::u16string_view search,
                                              std::u16string_view replacement);
    // Splits at the first delimiter; false (outputs untouched) when there is none.
    static bool chop(std::u16string_view s, std::u16string_view delimiter, std::u16string& left,
                     std::u16string& right);
};

}  // namespace kivreg
