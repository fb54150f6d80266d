#pragma once
// The model's texts are UTF-8; log lines are 16-bit text, so a text is
// converted where it is written to the log and nowhere else.

#include <string>
#include <string_view>

#include "runtime/textconv.h"
#include "support/CLog.h"

namespace kivreg {

struct Utf8 {
    std::string_view text;
};

inline CLog& operator<<(CLog& log, Utf8 t) {
    std::u16string units;
    rt::utf8ToUtf16Lenient(t.text, units);
    return log << std::u16string_view(units);
}

// The text as 16-bit units, for messages built before they are logged.
inline std::u16string utf16(std::string_view text) {
    std::u16string units;
    rt::utf8ToUtf16Lenient(text, units);
    return units;
}

}  // namespace kivreg
