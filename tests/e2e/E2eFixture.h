#pragma once
// A local directory server on a free loopback port and the kivreg program
// run against it, each in its own process.

#include <gmock/gmock.h>

#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Process.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {

using testing::HasSubstr;
using testing::Not;

inline const std::string kProgram = KIVREG_BINARY_DIR "/kivreg";
inline const std::string kLibrary = KIVREG_BINARY_DIR "/libkivreg.so";
inline const std::string kServerScript = KIVREG_SOURCE_DIR "/tools/kivreg_dirserver.py";

struct ServerOptions {
    std::string user = "supplier";
    std::string password = "s3cret-pw";
    int status = 200;
    std::string first = "";       // statuses answered before `status`, such as "503,503"
    std::string retryAfter = "";  // sent with every status other than 200
    std::string delay = "";       // seconds before each answer
    bool https = false;
    std::string path = "";      // where registrations are taken (default /kiv/ds)
    std::string redirect = "";  // "308=LOCATION" answered on every other path
};

// A small document whose one reference resolves.
extern const char* const kDocument;

class DirServer {
public:
    DirServer(const std::filesystem::path& dir, const ServerOptions& options);
    ~DirServer() { m_child->stop(); }  // SIGTERM: the server stops cleanly
    int port() const { return m_port; }
    std::string portText() const { return std::to_string(m_port); }
    // The documents the server accepted, in arrival order.
    std::vector<std::string> stored() const;
    // The POSTs the server saw, one line each: "POST PATH with-credentials" (or no-credentials).
    std::string requests() const;

private:
    std::filesystem::path m_store;
    std::unique_ptr<Child> m_child;
    int m_port = 0;
};

class E2e : public testing::Test {
protected:
    // Runs kivreg with the arguments in the test's directory.
    RunResult kivreg(const std::vector<std::string>& args, RunOptions options = {});
    // The same started, for runs that overlap.
    std::unique_ptr<Child> startKivreg(const std::vector<std::string>& args);
    std::string writeDoc(const std::string& name, const std::string& xml);
    std::string path(const std::string& name) const { return (m_dir / name).string(); }
    // Registers `doc` as `user` (password s3cret-pw) with 127.0.0.1 at `port`, then `more`.
    static std::vector<std::string> registering(const std::string& doc, const std::string& user,
                                                const std::string& port,
                                                const std::vector<std::string>& more = {});
    // Registers kDocument (as doc.xml) with the server's user and password, then `more`.
    std::vector<std::string> connect(const std::string& port, std::vector<std::string> more = {}) {
        return registering(writeDoc("doc.xml", kDocument), "supplier", port, more);
    }
    std::vector<std::string> connect(const DirServer& server, std::vector<std::string> more = {}) {
        return connect(server.portText(), std::move(more));
    }

    // kDocument under another supplier name (and vendor), with `value` in its one property.
    std::string document(const std::string& supplier, const std::string& value,
                         const std::string& vendor = "");

    TempDir m_dir;
    int m_docs = 0;
};

// The files in `dir` with the extension (".xml"), sorted by name.
std::vector<std::string> filesIn(const std::filesystem::path& dir, const std::string& extension);

// The time `t` in UTC as strftime writes it in `format`.
std::string utc(const char* format, std::time_t t = std::time(nullptr));

// How often `what` occurs in `text`.
inline size_t occurrences(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size()) ++n;
    return n;
}

// The metrics of a status file's text, by name.
std::map<std::string, double> metrics(const std::string& text);
// The metrics of the status file, which promtool must accept where it is installed.
std::map<std::string, double> checkedMetrics(const std::string& statusFile);
// The one reason the failure state set marks, empty when it marks none; every
// reason must be there.
std::string failureReason(const std::map<std::string, double>& metrics);

}  // namespace kivreg::test
