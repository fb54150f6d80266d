#include "http/Base64.h"

#include "runtime/textconv.h"

namespace kivreg {

namespace {
constexpr char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string Base64::encode(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const unsigned v = (static_cast<unsigned char>(bytes[i]) << 16) |
                           (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                           static_cast<unsigned char>(bytes[i + 2]);
        out += ALPHABET[v >> 18];
        out += ALPHABET[(v >> 12) & 63];
        out += ALPHABET[(v >> 6) & 63];
        out += ALPHABET[v & 63];
    }
    if (const size_t left = bytes.size() - i; left > 0) {
        unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
        if (left == 2) v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        out += ALPHABET[v >> 18];
        out += ALPHABET[(v >> 12) & 63];
        out += left == 2 ? ALPHABET[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::u16string Base64::encode(std::u16string_view text) {
    std::string bytes;
    rt::utf16ToUtf8Lenient(text, bytes);
    const std::string encoded = encode(std::string_view(bytes));
    return std::u16string(encoded.begin(), encoded.end());
}

}  // namespace kivreg
