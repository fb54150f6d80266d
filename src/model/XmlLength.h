#pragma once
// Helpers of the document writers. XmlLength stands in for the output string
// when a document is measured before it is written: the same rendering code
// runs once into this counter and once into a buffer reserved to the exact
// length, so a large body is allocated once.

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

// Writes an attribute whose opening (blank, name, '="') is given, its value
// and the closing quote. Values go out as they are held.
template <typename Out>
void putAttribute(Out& out, const char16_t* opening, std::u16string_view value) {
    out += opening;
    out += value;
    out += u'"';
}

// The same, but only for a value that is not empty.
template <typename Out>
void putAttributeIfSet(Out& out, const char16_t* opening, std::u16string_view value) {
    if (!value.empty()) putAttribute(out, opening, value);
}

}  // namespace kivreg
