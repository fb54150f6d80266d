#pragma once
// Standard Base64 (RFC 4648 alphabet, "=" padding) for Basic authentication.

#include <string>
#include <string_view>

namespace kivreg {

class Base64 {
public:
    static std::string encode(std::string_view bytes);
    // Text is taken as its UTF-8 bytes, which is what a server expects of
    // non-ASCII credentials.
    static std::u16string encode(std::u16string_view text);
};

}  // namespace kivreg
