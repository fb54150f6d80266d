#pragma once
// Writing files: whole buffers through short writes and interrupting signals,
// and files that must survive replaced so that a reader, a crash or a full
// disk finds the old content or the new one, never a mix and never nothing.

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>

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

// The new content of a file, written to a hidden temporary file in the same
// directory (".<name>.XXXXXX", so that it can be renamed without copying and
// is never taken for the file itself). Until it is renamed into place the
// temporary file is removed when the object goes, whatever failed.
class PendingFile {
public:
    // Creates the temporary file beside `path` with `mode`, whatever the umask.
    PendingFile(const std::string& path, mode_t mode);
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    // False once anything failed; error() then tells why.
    bool write(std::string_view bytes);
    // Flushes the content to the disk and closes the file.
    bool finish();
    // Renames the finished file to `target` (in the same directory), replacing
    // what is there. The directory is not flushed: see syncDirectoryOf.
    bool renameTo(const std::string& target);
    bool ok() const { return m_error == 0; }
    // The errno of the first failure, 0 while none.
    int error() const { return m_error; }

private:
    bool fail();

    std::string m_temp;
    int m_fd = -1;
    int m_error = 0;
};

// Flushes the directory that holds `path`, so that the renames and removals
// made in it survive a power loss. False, with errno, on failure.
bool syncDirectoryOf(const std::string& path);

// The whole recipe: `bytes` to a temporary file, flushed, renamed over `path`,
// the directory flushed. On failure `path` is as it was, no temporary file is
// left, and the result is the errno of the failure (0 on success).
int replaceFile(const std::string& path, std::string_view bytes, mode_t mode);

// The process's umask, read without changing it (umask() can only be read by
// setting it, which would race with the host's other threads). 077 when it
// cannot be read: then nobody else is given the file.
mode_t currentUmask();

// unlink that counts a file already gone as removed. False, with errno, otherwise.
bool removeFile(const std::string& path);

}  // namespace kivreg::rt
