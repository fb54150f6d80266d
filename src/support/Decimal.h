#pragma once

#include <charconv>
#include <string_view>

namespace kivreg {

// The whole text as a decimal number, whatever the locale: false for an empty
// text, anything beside the digits, or a value beyond the type.
template <typename Number>
bool wholeDecimal(std::string_view text, Number& n) {
    const char* end = text.data() + text.size();
    const std::from_chars_result r = std::from_chars(text.data(), end, n);
    return !text.empty() && r.ec == std::errc() && r.ptr == end;
}

}  // namespace kivreg
