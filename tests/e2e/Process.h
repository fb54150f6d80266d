#pragma once
// Child processes for end-to-end tests: run a program to completion, or keep
// one running (on a pipe or a pseudo-terminal) while the test talks to it.
// Every wait is bounded; a child that outlives its wait is killed by its id.

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

struct termios;

namespace kivreg::test {

struct RunResult {
    int exitCode = -1;  // -1 when the process did not exit normally
    std::string out;    // standard output and standard error, interleaved
};

struct RunOptions {
    // Each with its default, so that a designated initializer may name any of them alone.
    std::string cwd = "";
    std::map<std::string, std::string> env = {};  // added to (or replacing in) the environment
    std::string input = "";                       // the whole of standard input
    bool terminal = false;  // a pseudo-terminal for all three standard streams
};

// argv as a host program (strace, unshare) must start it: after the words of
// the emulator when the tests run under one (see testEmulator()).
std::vector<std::string> emulated(std::vector<std::string> argv);

// Runs argv[0] (a path) with its arguments to its end.
RunResult run(const std::vector<std::string>& argv, const RunOptions& options = {});

class Child {
public:
    explicit Child(const std::vector<std::string>& argv, const RunOptions& options = {});
    ~Child();  // SIGKILL if still running
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Reads output until `text` appears after everything awaited before (20 s at most).
    bool expect(const std::string& text);
    // The rest of the line in which `text` appears, or empty when it does not.
    std::string lineAfter(const std::string& text);
    void type(const std::string& keys);
    // True once the terminal's echo is off (hidden input waits for a key).
    bool echoOff();
    // Once the child sleeps in read(2) after more than `sleeps` sleeps (20 s
    // at most), the number of its sleeps so far; -1 when it does not. A key
    // that raises a signal wakes the reader: sleeping in read again after it
    // means the handler has run.
    long sleepsInRead(long sleeps = -1) const;
    // Reads the output to the end and returns the exit code (-1: killed).
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // SIGTERM, then wait().
    int stop();
    // After wait(): the signal that ended the child, 0 when it exited.
    int signal() const { return m_signal; }
    // The pseudo-terminal's attributes; false when they cannot be read.
    bool terminalMode(termios& mode) const;
    const std::string& output() const { return m_out; }
    pid_t pid() const { return m_pid; }

private:
    bool readMore(std::chrono::steady_clock::time_point deadline);

    pid_t m_pid = -1;
    int m_fd = -1;
    std::string m_out;
    size_t m_seen = 0;
    int m_signal = 0;
};

}  // namespace kivreg::test
