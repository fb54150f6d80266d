// The entry file's format: a header of "name: value" lines after a first
// line that names the format, an empty line, and the body. Written in one
// piece by the spool; read by a reader that trusts nothing in the file.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>

#include "api/Spool.h"
#include "api/Vocabulary.h"

namespace kivreg::api {

std::string escaped(std::string_view text) {
    std::string out;
    for (const unsigned char c : text) {
        if (c == '%' || c < 0x20 || c == 0x7f) {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

namespace {

constexpr std::string_view kMagic = "kivreg-spool 1";

std::string unescaped(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = 0;
        if (text[i] == '%' && i + 2 < text.size() &&
            std::from_chars(&text[i + 1], &text[i + 3], c, 16).ptr == &text[i + 3]) {
            out += static_cast<char>(c);
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

constexpr const char* kFields[] = {"scheme",    "host", "port",          "path",
                                   "format",    "time", "supplier-name", "supplier-vendor",
                                   "body-bytes"};
// Past this a header is taken for something else: names are far shorter.
constexpr size_t kMaxHeader = 1 << 20;
// No spool can hold a larger body (its largest limit).
constexpr uint64_t kMaxBodyBytes = uint64_t{SPOOL_MAX_MB_LIMIT} << 20;

// A decimal number of at most `max`, else nothing.
std::optional<uint64_t> decimal(std::string_view text, uint64_t max, std::string& why,
                                std::string_view name) {
    uint64_t n = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), n);
    if (text.empty() || text[0] == '+' || end != text.data() + text.size() ||
        (ec != std::errc() && ec != std::errc::result_out_of_range)) {
        why = "number malformed: " + std::string(name);
        return std::nullopt;
    }
    if (ec == std::errc::result_out_of_range || n > max) {
        why = "number out of range: " + std::string(name);
        return std::nullopt;
    }
    return n;
}

// The header (its lines up to and without the blank one) into e and
// bodyBytes; why it is not an entry's header otherwise.
std::string parseHeader(std::string_view head, SpoolEntry& e, uint64_t& bodyBytes) {
    const size_t firstEnd = head.find('\n');
    const std::string_view first = head.substr(0, firstEnd);
    if (first != kMagic)
        return first.starts_with("kivreg-spool ") ? "unknown format" : "not a spool entry";
    head.remove_prefix(firstEnd == std::string_view::npos ? head.size() : firstEnd + 1);
    unsigned seen = 0;
    std::string why;
    while (!head.empty()) {
        const size_t end = std::min(head.find('\n'), head.size());
        const std::string_view line = head.substr(0, end);
        head.remove_prefix(std::min(end + 1, head.size()));
        const size_t colon = line.find(": ");
        if (colon == std::string_view::npos) return "header line malformed";
        const std::string_view name = line.substr(0, colon);
        const auto field = std::find(std::begin(kFields), std::end(kFields), name);
        if (field == std::end(kFields)) continue;  // a later version's, harmless here
        const unsigned bit = 1u << (field - std::begin(kFields));
        if ((seen & bit) != 0) return "header line repeated: " + std::string(name);
        seen |= bit;
        const std::string value = unescaped(line.substr(colon + 2));
        if (name == "scheme") {
            if (value != "http" && value != "https") return "header line malformed: scheme";
            e.destination.https = value == "https";
        } else if (name == "host") {
            e.destination.host = value;
        } else if (name == "port") {
            if (!decimal(value, 65536, why, name)) return why;
            e.destination.port = value;
        } else if (name == "path") {
            e.destination.path = value;
        } else if (name == "format") {
            if (value != "old" && value != "current") return "unknown format";
            e.oldFormat = value == "old";
        } else if (name == "time") {
            e.time = value;
        } else if (name == "supplier-name") {
            e.supplierName = value;
        } else if (name == "supplier-vendor") {
            e.supplierVendor = value;
        } else if (const auto n = decimal(value, kMaxBodyBytes, why, name)) {
            bodyBytes = *n;
        } else {
            return why;
        }
    }
    for (size_t i = 0; i < std::size(kFields); ++i)
        if ((seen & (1u << i)) == 0) return "header line missing: " + std::string(kFields[i]);
    return "";
}

// Reads at `offset` until `buffer` is full or the file ends; false on a read error.
bool readAt(int fd, uint64_t offset, std::string& buffer) {
    size_t got = 0;
    while (got < buffer.size()) {
        const ssize_t n =
            ::pread(fd, buffer.data() + got, buffer.size() - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    buffer.resize(got);
    return true;
}

}  // namespace

std::string entryHeader(const SpoolEntry& e, uint64_t bodyBytes) {
    std::string h(kMagic);
    h += "\nscheme: " + std::string(e.destination.https ? "https" : "http");
    h += "\nhost: " + escaped(e.destination.host);
    h += "\nport: " + escaped(e.destination.port);
    h += "\npath: " + escaped(e.destination.path);
    h += "\nformat: " + std::string(e.oldFormat ? "old" : "current");
    h += "\ntime: " + e.time;
    h += "\nsupplier-name: " + escaped(e.supplierName);
    h += "\nsupplier-vendor: " + escaped(e.supplierVendor);
    h += "\nbody-bytes: " + std::to_string(bodyBytes) + "\n\n";
    return h;
}

std::string readEntry(const std::string& file, SpoolEntry& entry, std::string* body) {
    entry.file = file;
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0) {
        const std::string why = std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return why;
    }
    entry.fileSize = static_cast<uint64_t>(st.st_size);
    std::string why;
    // The header in growing pieces: most are a few hundred bytes.
    std::string head;
    size_t end = std::string::npos;
    for (size_t want = 4096; end == std::string::npos; want *= 4) {
        head.resize(std::min<uint64_t>(want, std::min<uint64_t>(kMaxHeader, entry.fileSize)));
        if (!readAt(fd, 0, head)) {
            why = std::strerror(errno);
            break;
        }
        end = head.find("\n\n");
        if (end == std::string::npos && (head.size() == kMaxHeader || head.size() < want)) {
            why = head.starts_with(kMagic) ? "header not ended" : "not a spool entry";
            break;
        }
    }
    uint64_t bodyBytes = 0;
    if (why.empty()) why = parseHeader(std::string_view(head).substr(0, end), entry, bodyBytes);
    const uint64_t headBytes = end + 2;
    if (why.empty() && entry.fileSize < headBytes + bodyBytes) why = "body shorter than announced";
    if (why.empty() && entry.fileSize > headBytes + bodyBytes) why = "body longer than announced";
    if (why.empty() && body != nullptr) {
        body->resize(bodyBytes);
        if (!readAt(fd, headBytes, *body))
            why = std::strerror(errno);
        else if (body->size() != bodyBytes)
            why = "body shorter than announced";
    }
    ::close(fd);
    return why;
}

}  // namespace kivreg::api
