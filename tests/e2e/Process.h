#pragma once
// Child processes for end-to-end tests: run a program to completion with a
// bounded wait, or keep a server running until the test stops it by its id.

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace kivreg::test {

struct RunResult {
    int exitCode = -1;  // -1 when the process did not exit normally
    bool timedOut = false;
    std::string out;  // standard output and standard error, interleaved
};

struct RunOptions {
    std::string cwd;
    std::map<std::string, std::string> env;  // added to (or replacing in) the environment
    std::string input;                       // written to standard input, then closed
    std::chrono::milliseconds timeout{60000};
};

// Runs argv[0] (a path) with its arguments and waits for it, killing it when
// the timeout passes.
RunResult run(const std::vector<std::string>& argv, const RunOptions& options = {});

// A long-running child with its output in a pipe.
class Child {
public:
    Child(const std::vector<std::string>& argv, const RunOptions& options = {});
    ~Child();  // SIGTERM, then SIGKILL after a grace period
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Reads output until a line contains `marker`; returns that line, or an
    // empty string when the child ended or the time ran out first.
    std::string waitForLine(const std::string& marker, std::chrono::milliseconds timeout);
    // Stops the child (SIGTERM, bounded wait, SIGKILL) and returns its exit code.
    int stop();
    pid_t pid() const { return m_pid; }
    const std::string& output() const { return m_out; }

private:
    pid_t m_pid = -1;
    int m_fd = -1;
    std::string m_out;
    size_t m_scanned = 0;
};

}  // namespace kivreg::test
