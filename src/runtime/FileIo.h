#pragma once
// All of a buffer written to a file descriptor, through short writes and
// interrupting signals.

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace kivreg::rt {

inline bool writeAll(int fd, const void* data, size_t size) {
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace kivreg::rt
