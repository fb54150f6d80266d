#include "support/Status.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace kivreg {

namespace {

template <class Char>
std::basic_string<Char> joinHostPort(std::basic_string_view<Char> host,
                                     std::basic_string_view<Char> port,
                                     std::basic_string_view<Char> between) {
    std::basic_string<Char> out;
    const bool ipv6 = host.find(Char(':')) != std::basic_string_view<Char>::npos;
    if (ipv6) out += Char('[');
    out += host;
    if (ipv6) out += Char(']');
    if (!port.empty()) out.append(between).append(port);
    return out;
}

}  // namespace

std::string Status::message() const {
    std::string line = what;
    for (const std::string* part : {&context, &after})
        if (!part->empty()) line.append(line.empty() ? "" : " ").append(*part);
    if (!reason.empty()) line.append(": ").append(reason);
    return line;
}

std::string hostPort(std::string_view host, std::string_view port, std::string_view between) {
    return joinHostPort(host, port, between);
}

std::u16string hostPort(std::u16string_view host, std::u16string_view port,
                        std::u16string_view between) {
    return joinHostPort(host, port, between);
}

std::string secondsText(long long ms) {
    const long long tenths = (ms + 50) / 100;
    std::string text = std::to_string(tenths / 10);
    if (tenths % 10 != 0) text += "." + std::to_string(tenths % 10);
    return text + " s";
}

std::string bytesText(size_t bytes) {
    if (bytes < 1024) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < std::size(units)) value /= 1024, ++unit;
    // to_chars, not printf: a host's locale must not turn the point into a comma.
    char text[32];
    char* end = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 1).ptr;
    return std::string(text, end) + " " + units[unit];
}

std::string oneLine(std::string_view text, size_t max) {
    size_t end = std::min(text.size(), max);
    // Back to the start of a character cut in two.
    if (end < text.size())
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    const char* const hex = "0123456789abcdef";
    std::string out;
    for (const char c : text.substr(0, end)) {
        const auto b = static_cast<unsigned char>(c);
        if (b >= 0x20 && b != 0x7F)
            out += c;
        else if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else if (c == '\t')
            out += "\\t";
        else
            out += {'\\', 'x', hex[b >> 4], hex[b & 15]};
    }
    return end < text.size() ? out + "..." : out;
}

}  // namespace kivreg
