#include "runtime/FileIo.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace kivreg::rt {
namespace {

std::string directoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string tempNameFor(const std::string& path) {
    const size_t slash = path.rfind('/');
    const size_t name = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(0, name) + "." + path.substr(name) + ".XXXXXX";
}

}  // namespace

PendingFile::PendingFile(const std::string& path, mode_t mode) : m_temp(tempNameFor(path)) {
    m_fd = ::mkostemp(m_temp.data(), O_CLOEXEC);
    if (m_fd < 0) {
        m_error = errno;
        m_temp.clear();
        return;
    }
    if (::fchmod(m_fd, mode) != 0) fail();
}

PendingFile::~PendingFile() {
    if (m_fd >= 0) ::close(m_fd);
    if (!m_temp.empty()) ::unlink(m_temp.c_str());
}

bool PendingFile::fail() {
    if (m_error == 0) m_error = errno != 0 ? errno : EIO;
    return false;
}

bool PendingFile::write(std::string_view bytes) {
    if (!ok()) return false;
    return writeAll(m_fd, bytes.data(), bytes.size()) || fail();
}

bool PendingFile::finish() {
    if (!ok()) return false;
    const bool synced = ::fsync(m_fd) == 0 || fail();
    const int fd = m_fd;
    m_fd = -1;
    return (::close(fd) == 0 || fail()) && synced;
}

bool PendingFile::renameTo(const std::string& target) {
    if (!ok() || m_fd >= 0) return false;
    if (::rename(m_temp.c_str(), target.c_str()) != 0) return fail();
    m_temp.clear();
    return true;
}

bool syncDirectoryOf(const std::string& path) {
    const int fd = ::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool synced = ::fsync(fd) == 0;
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return synced;
}

int replaceFile(const std::string& path, std::string_view bytes, mode_t mode) {
    PendingFile file(path, mode);
    if (file.write(bytes) && file.finish() && file.renameTo(path))
        return syncDirectoryOf(path) ? 0 : errno;
    return file.error();
}

mode_t currentUmask() {
    std::FILE* status = std::fopen("/proc/self/status", "re");
    mode_t mask = 077;
    if (status == nullptr) return mask;
    char line[256];
    while (std::fgets(line, sizeof line, status) != nullptr) {
        const std::string_view text(line);
        if (!text.starts_with("Umask:")) continue;
        const size_t at = std::min(text.find_first_not_of(" \t", 6), text.size());
        unsigned value = 0;
        const auto [end, ec] =
            std::from_chars(text.data() + at, text.data() + text.size(), value, 8);
        if (ec == std::errc() && value <= 0777) mask = static_cast<mode_t>(value);
        break;
    }
    std::fclose(status);
    return mask;
}

bool removeFile(const std::string& path) {
    return ::unlink(path.c_str()) == 0 || errno == ENOENT;
}

}  // namespace kivreg::rt
