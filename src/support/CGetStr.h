#pragma once

#include <charconv>
#include <string>
#include <type_traits>

namespace kivreg {

// Decimal text of an integer as a 16-bit string (leading "-" for negatives, no padding).
template <typename T>
struct CGetStr {
    static_assert(std::is_integral_v<T>);
    static std::u16string get(const T& value) {
        char digits[24] = {};
        auto [end, ec] = std::to_chars(digits, digits + sizeof digits, value);
        (void)ec;  // 24 characters hold every 64-bit value
        return std::u16string(digits, end);
    }
};

}  // namespace kivreg
