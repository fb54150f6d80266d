#pragma once
// Stands in for the output string when a document is measured before it is
// written: the same rendering code runs once into this counter and once into
// a buffer reserved to the exact length, so a large body is allocated once.

#include <cstddef>
#include <string>
#include <string_view>

namespace kivreg {

struct XmlLength {
    size_t units = 0;
    XmlLength& operator+=(char16_t) {
        ++units;
        return *this;
    }
    XmlLength& operator+=(const char16_t* s) {
        units += std::char_traits<char16_t>::length(s);
        return *this;
    }
    XmlLength& operator+=(std::u16string_view s) {
        units += s.size();
        return *this;
    }
};

}  // namespace kivreg
