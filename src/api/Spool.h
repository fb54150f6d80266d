#pragma once
// The spool: registrations the directory could not take, kept on disk until a
// later run delivers them. One file per entry, written whole and renamed in;
// at most one entry per destination and supplier, because a registration is
// the supplier's complete statement and a newer one makes an older one moot.
// Every change happens under an exclusive flock on DIR/.lock, so that a timer
// and a person running at once neither deliver an entry twice nor lose one.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kivreg {
class CLog;
}

namespace kivreg::api {

struct Destination {
    bool https = false;
    std::string host;  // lower case
    std::string port;  // digits, without leading zeros
    std::string path;  // "/kiv/ds"

    std::string url() const;
    bool operator==(const Destination&) const = default;
};

// What an entry says about itself; the body follows its header in the file.
struct SpoolEntry {
    std::string file;
    Destination destination;
    bool oldFormat = false;
    std::string time;  // UTC with nanoseconds: the text sorts as the times do
    std::string supplierName, supplierVendor;
    uint64_t fileSize = 0;

    bool sameKey(const SpoolEntry& other) const {
        return destination == other.destination && supplierName == other.supplierName &&
               supplierVendor == other.supplierVendor;
    }
};

// A header value kept on one line whatever a host or supplier name holds.
std::string escaped(std::string_view text);

// The header that goes before a body of that many bytes.
std::string entryHeader(const SpoolEntry& entry, uint64_t bodyBytes);

// Why the entry file cannot be read, empty when it can: its header into
// `entry` (with its file and size), and with `body` its body as well.
std::string readEntry(const std::string& file, SpoolEntry& entry, std::string* body = nullptr);

class Spool {
public:
    // Creates DIR (0700) if it is missing and waits for its lock. ok() tells
    // whether that worked; the reason is logged when it did not.
    Spool(CLog& log, std::string dir, uint64_t maxBytes);
    ~Spool();
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;
    bool ok() const { return m_lock >= 0; }
    const std::string& dir() const { return m_dir; }

    // Keeps the body as the entry for key's destination and supplier (the
    // key's file and time are chosen here), replacing an older one.
    void keep(const SpoolEntry& key, std::string_view body);
    // Removes the entry of key's destination and supplier without sending it.
    void supersede(const SpoolEntry& key);
    // The entries for a destination, oldest first.
    std::vector<SpoolEntry> pending(const Destination& destination);
    // False when the file is not a whole entry; it is then moved to DIR/damaged.
    bool readBody(const SpoolEntry& entry, std::string& body);
    void delivered(const SpoolEntry& entry);
    void rejected(const SpoolEntry& entry, int status);

    struct Totals {
        uint64_t entries = 0, bytes = 0;
    };
    // Counted without the lock: for reporting only.
    static Totals totals(const std::string& dir);

private:
    std::vector<SpoolEntry> entries();
    void removeOldest(std::vector<SpoolEntry>& others, uint64_t room);
    bool remove(const SpoolEntry& entry);
    void damaged(const std::string& file, const std::string& why);
    // Moves the file into DIR/folder; its new path, or empty (logged).
    std::string moveAside(const std::string& file, const char* folder);

    CLog& m_log;
    std::string m_dir;
    uint64_t m_maxBytes;
    int m_lock = -1;
};

}  // namespace kivreg::api
