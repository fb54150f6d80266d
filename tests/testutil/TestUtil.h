#pragma once
// Helpers shared by the test programs.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/CLog.h"

namespace kivreg::test {

// A fresh directory under the system's temporary directory, removed with its
// contents when the object goes.
class TempDir {
public:
    TempDir() : TempDir(std::filesystem::temp_directory_path()) {}
    explicit TempDir(const std::filesystem::path& parent);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& bytes);

std::u16string u16(const std::string& utf8);
std::string u8(const std::u16string& text);
std::u16string u16(const std::filesystem::path& path);

// A CLog whose entries are also appended to a file, so that a test can read
// back what was logged. messages() returns the entries without their time stamp.
class LogCapture {
public:
    LogCapture();
    CLog& log() { return *m_log; }
    operator CLog*() { return m_log.get(); }
    // Every line of the log file since the capture began.
    std::vector<std::string> lines() const;
    // The same lines with the leading "Sat Nov 14 12:04:22 2026 " removed.
    std::vector<std::string> messages() const;
    // All messages joined with "\n", for substring checks.
    std::string text() const;

private:
    TempDir m_dir;
    std::unique_ptr<CLog> m_log;
};

// A listening socket on 127.0.0.1 with its port; closedPort() is one where nothing listens.
int listenOnLoopback(std::string& port, int backlog = 4);
std::string closedPort();

// Closes standard input while it lives, as a host that runs without one
// does: the next descriptor opened is 0. A closed state is restored as found.
class StdinClosed {
public:
    StdinClosed();
    ~StdinClosed();
    StdinClosed(const StdinClosed&) = delete;
    StdinClosed& operator=(const StdinClosed&) = delete;

private:
    int m_saved;
};

// Sets an environment variable (or unsets it for null) and restores it afterwards.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();

private:
    std::string m_name;
    std::optional<std::string> m_saved;
};

// Certificates made by make_test_certs.sh into a fresh directory: ca.pem (trusted CA),
// server.pem/.key (localhost, 127.0.0.1), wrongname.pem/.key (by the CA, another host),
// rogue.pem/.key (self-signed, localhost), client.pem (certificate + key by the CA).
std::string testCert(const std::string& name);

// A cross build's tests run under an emulator, named in KIVREG_TEST_EMULATOR
// (scripts/cross-test.sh sets it); the programs they start run under it too.
// Empty when the tests run natively.
std::string testEmulator();
// Why a test that watches a child's system call in /proc/PID/syscall cannot
// run there: the file shows the emulator's host calls, numbered as the host's.
inline constexpr const char* kEmulatedSyscalls =
    "under an emulator /proc/PID/syscall shows the host's system calls, not the program's";

}  // namespace kivreg::test
