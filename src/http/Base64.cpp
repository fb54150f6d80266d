#include "http/Base64.h"

#include <array>

#include "runtime/textconv.h"

namespace kivreg {

namespace {
constexpr char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<signed char, 256> decodeTable() {
    std::array<signed char, 256> t{};
    t.fill(-1);
    for (int i = 0; i < 64; ++i)
        t[static_cast<unsigned char>(ALPHABET[i])] = static_cast<signed char>(i);
    return t;
}
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

std::optional<std::string> Base64::decode(std::string_view text) {
    static constexpr auto table = decodeTable();
    if (text.size() % 4 != 0) return std::nullopt;
    std::string out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const int pad =
            last ? (text[i + 3] == '=') + (text[i + 2] == '=' && text[i + 3] == '=') : 0;
        unsigned v = 0;
        for (size_t k = 0; k < 4; ++k) {
            const int d = k >= 4 - static_cast<size_t>(pad)
                              ? 0
                              : table[static_cast<unsigned char>(text[i + k])];
            if (d < 0) return std::nullopt;
            v = (v << 6) | static_cast<unsigned>(d);
        }
        out += static_cast<char>(v >> 16);
        if (pad < 2) out += static_cast<char>((v >> 8) & 255);
        if (pad < 1) out += static_cast<char>(v & 255);
    }
    return out;
}

}  // namespace kivreg
