#pragma once
// Helpers of the document writers. XmlLength stands in for the output string
// when a document is measured before it is written: the same rendering code
// runs once into this counter and once into a buffer reserved to the exact
// length, so a large body is allocated once.

#include <cstddef>
#include <string>
#include <string_view>

#include "runtime/textconv.h"

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

// The same document written straight into UTF-8. After an unpaired surrogate
// nothing more is written: the bytes end where the conversion failed.
struct Utf8Out {
    std::string& bytes;
    bool malformed = false;
    Utf8Out& operator+=(char16_t c) {
        if (c < 0x80 && !malformed)
            bytes += static_cast<char>(c);
        else
            *this += std::u16string_view(&c, 1);
        return *this;
    }
    Utf8Out& operator+=(const char16_t* s) { return *this += std::u16string_view(s); }
    Utf8Out& operator+=(std::u16string_view s) {
        if (malformed) return *this;
        // Most of a document is ASCII: copied unit by unit until the first
        // character that is not, the rest through the converter.
        const size_t base = bytes.size();
        bytes.resize(base + s.size());
        char* o = bytes.data() + base;
        for (size_t i = 0; i < s.size(); ++i) {
            if (s[i] >= 0x80) {
                bytes.resize(base + i);
                malformed = rt::utf16ToUtf8(s.substr(i), bytes) != rt::CONV_OK;
                break;
            }
            o[i] = static_cast<char>(s[i]);
        }
        return *this;
    }
};

// Measures for Utf8Out: the bytes to reserve so that writing never reallocates.
struct Utf8Length {
    size_t bytes = 0;
    Utf8Length& operator+=(char16_t c) { return *this += std::u16string_view(&c, 1); }
    Utf8Length& operator+=(const char16_t* s) { return *this += std::u16string_view(s); }
    Utf8Length& operator+=(std::u16string_view s) {
        bytes += rt::utf8SizeBound(s);
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
