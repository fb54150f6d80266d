#include "api/Spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "runtime/FileIo.h"
#include "support/CLog.h"
#include "support/Status.h"

namespace kivreg::api {
namespace {

constexpr std::string_view kSuffix = ".kiv";

std::string now() {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    std::tm tm{};
    ::gmtime_r(&ts.tv_sec, &tm);
    char text[48];
    const size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
    std::snprintf(text + n, sizeof text - n, ".%09ldZ", ts.tv_nsec);
    return text;
}

// FNV-1a: names spread over the key; the key inside the entry decides.
std::string keyHash(const SpoolEntry& e) {
    uint64_t h = 14695981039346656037ull;
    for (const std::string* part : {&e.destination.host, &e.destination.port, &e.destination.path,
                                    &e.supplierName, &e.supplierVendor}) {
        for (const unsigned char c : *part + '\0') h = (h ^ c) * 1099511628211ull;
    }
    if (e.destination.https) h = (h ^ 's') * 1099511628211ull;
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(h));
    return text;
}

bool isEntryName(const std::string& name) {
    return name.size() > kSuffix.size() && name[0] != '.' && name.ends_with(kSuffix);
}

// What PendingFile leaves when a run is killed: ".<entry>.XXXXXX".
bool isLeftover(const std::string& name) {
    return name.size() > 8 && name[0] == '.' &&
           std::string_view(name).substr(0, name.size() - 7).ends_with(kSuffix) &&
           name[name.size() - 7] == '.';
}

std::vector<std::string> names(const std::string& dir) {
    std::vector<std::string> out;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) out.emplace_back(e->d_name);
        ::closedir(d);
    }
    return out;
}

}  // namespace

std::string Destination::url() const {
    return (https ? "https://" : "http://") + hostPort(host, port) + path;
}

Spool::Spool(CLog& log, std::string dir, uint64_t maxBytes)
    : m_log(log), m_dir(std::move(dir)), m_maxBytes(maxBytes) {
    if (::mkdir(m_dir.c_str(), 0700) == 0) rt::syncDirectoryOf(m_dir);
    const std::string lock = m_dir + "/.lock";
    m_lock = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    int rc = m_lock < 0 ? -1 : 0;
    while (rc == 0 && (rc = ::flock(m_lock, LOCK_EX)) != 0 && errno == EINTR) rc = 0;
    if (rc != 0) {
        m_log << timestamp << u"Spool " << m_dir.c_str() << u" cannot be used: "
              << std::strerror(errno) << endlog;
        if (m_lock >= 0) ::close(m_lock);
        m_lock = -1;
        return;
    }
    // Only a run holding the lock writes, so these are from runs that were stopped.
    for (const std::string& name : names(m_dir))
        if (isLeftover(name)) ::unlink((m_dir + "/" + name).c_str());
}

Spool::~Spool() {
    if (m_lock >= 0) ::close(m_lock);  // releases the lock
}

std::vector<SpoolEntry> Spool::entries() {
    std::vector<SpoolEntry> out;
    for (const std::string& name : names(m_dir)) {
        if (!isEntryName(name)) continue;
        SpoolEntry e;
        if (const std::string why = readEntry(m_dir + "/" + name, e); !why.empty()) {
            damaged(e.file, why);
            continue;
        }
        out.push_back(std::move(e));
    }
    std::sort(out.begin(), out.end(), [](const SpoolEntry& a, const SpoolEntry& b) {
        return a.time != b.time ? a.time < b.time : a.file < b.file;
    });
    return out;
}

void Spool::keep(const SpoolEntry& key, std::string_view body) {
    SpoolEntry entry = key;
    entry.time = now();
    const std::string head = entryHeader(entry, body.size());
    const uint64_t size = head.size() + body.size();
    if (size > m_maxBytes) {
        m_log << timestamp << u"Registration not kept in spool: its " << size
              << u" bytes exceed the limit of " << m_maxBytes << u" bytes." << endlog;
        return;
    }
    std::vector<SpoolEntry> others = entries();
    const auto same = std::find_if(others.begin(), others.end(),
                                   [&](const SpoolEntry& e) { return e.sameKey(key); });
    if (same != others.end()) {
        entry.file = same->file;  // replaced in one rename: never none, never two
        others.erase(same);
    } else {
        const std::string stem = m_dir + "/" + keyHash(key);
        entry.file = stem + std::string(kSuffix);
        for (int n = 2; ::access(entry.file.c_str(), F_OK) == 0; ++n)
            entry.file = stem + "-" + std::to_string(n) + std::string(kSuffix);
    }
    rt::PendingFile file(entry.file, 0600);
    if (!(file.write(head) && file.write(body) && file.finish() && file.renameTo(entry.file) &&
          rt::syncDirectoryOf(entry.file))) {
        const int error = file.error() != 0 ? file.error() : errno;
        m_log << timestamp << u"Failed to keep the registration in spool: " << entry.file.c_str()
              << u": " << std::strerror(error) << endlog;
        return;
    }
    m_log << timestamp << u"Registration kept in spool: " << entry.file.c_str() << endlog;
    // Removed after the new entry is whole, so that a failed write costs nothing.
    removeOldest(others, m_maxBytes - size);
}

void Spool::removeOldest(std::vector<SpoolEntry>& others, uint64_t room) {
    uint64_t used = 0;
    for (const SpoolEntry& e : others) used += e.fileSize;
    for (const SpoolEntry& e : others) {
        if (used <= room) break;
        if (!remove(e)) continue;
        used -= e.fileSize;
        m_log << timestamp << u"Spool limit reached, removed: " << e.file.c_str() << endlog;
    }
}

bool Spool::remove(const SpoolEntry& entry) {
    if (rt::removeFile(entry.file) && rt::syncDirectoryOf(entry.file)) return true;
    m_log << timestamp << u"Failed to remove spool entry " << entry.file.c_str() << u": "
          << std::strerror(errno) << endlog;
    return false;
}

void Spool::supersede(const SpoolEntry& key) {
    for (const SpoolEntry& e : entries()) {
        if (e.sameKey(key) && remove(e))
            m_log << timestamp << u"Spooled registration superseded: " << e.file.c_str() << endlog;
    }
}

std::vector<SpoolEntry> Spool::pending(const Destination& destination) {
    std::vector<SpoolEntry> all = entries();
    std::erase_if(all, [&](const SpoolEntry& e) { return !(e.destination == destination); });
    return all;
}

bool Spool::readBody(const SpoolEntry& entry, std::string& body) {
    SpoolEntry e;
    const std::string why = readEntry(entry.file, e, &body);
    if (why.empty()) return true;
    damaged(entry.file, why);
    return false;
}

void Spool::delivered(const SpoolEntry& entry) {
    if (remove(entry))
        m_log << timestamp << u"Spooled registration delivered: " << entry.file.c_str() << endlog;
}

void Spool::rejected(const SpoolEntry& entry, int status) {
    if (const std::string target = moveAside(entry.file, "rejected"); !target.empty())
        m_log << timestamp << u"Spooled registration rejected (HTTP status " << status
              << u"): moved to " << target.c_str() << endlog;
}

void Spool::damaged(const std::string& file, const std::string& why) {
    if (const std::string target = moveAside(file, "damaged"); !target.empty())
        m_log << timestamp << u"Spooled registration damaged (" << why.c_str() << u"): moved to "
              << target.c_str() << endlog;
}

std::string Spool::moveAside(const std::string& file, const char* folder) {
    const std::string dir = m_dir + "/" + folder;
    const std::string target = dir + file.substr(file.rfind('/'));
    if (::mkdir(dir.c_str(), 0700) == 0) rt::syncDirectoryOf(dir);
    if (::rename(file.c_str(), target.c_str()) != 0 || !rt::syncDirectoryOf(target) ||
        !rt::syncDirectoryOf(file)) {
        m_log << timestamp << u"Failed to move spool entry " << file.c_str() << u" to "
              << target.c_str() << u": " << std::strerror(errno) << endlog;
        return "";
    }
    return target;
}

Spool::Totals Spool::totals(const std::string& dir) {
    Totals t;
    for (const std::string& name : names(dir)) {
        struct stat st {};
        if (!isEntryName(name) || ::stat((dir + "/" + name).c_str(), &st) != 0) continue;
        ++t.entries;
        t.bytes += static_cast<uint64_t>(st.st_size);
    }
    return t;
}

}  // namespace kivreg::api
