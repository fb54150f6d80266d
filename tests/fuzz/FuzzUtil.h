#pragma once
// What every fuzz target shares: the log silenced, a private directory for
// the files an input becomes, and bytes taken as text.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "runtime/textconv.h"

namespace kivreg::fuzz {

class Env {
public:
    Env() {
        // The log always goes to standard output as well: millions of runs
        // would drown the fuzzer's own report, which goes to standard error.
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::close(null);
        std::string dir = (std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp");
        dir += "/kivreg-fuzz-XXXXXX";
        if (::mkdtemp(dir.data()) == nullptr) std::abort();
        m_dir = dir;
    }
    ~Env() { std::filesystem::remove_all(m_dir); }
    Env(const Env&) = delete;
    Env& operator=(const Env&) = delete;

    // The path of a file in the private directory, holding `bytes`.
    std::string file(const char* name, std::string_view bytes) const {
        const std::string path = m_dir + "/" + name;
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            std::abort();
        ::close(fd);
        return path;
    }
    std::string path(const char* name) const { return m_dir + "/" + name; }

private:
    std::string m_dir;
};

inline std::string_view bytes(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// Malformed UTF-8 becomes U+FFFD, as text from outside usually does.
inline std::u16string text(std::string_view utf8) {
    std::u16string out;
    rt::utf8ToUtf16Lenient(utf8, out);
    return out;
}

}  // namespace kivreg::fuzz
