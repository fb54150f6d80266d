#pragma once
// Faults without mocks: the real program run under strace and stopped
// (SIGKILL) or failed (an errno) at the N-th call of one system call, so that
// a test can check what every such stop leaves on disk.

#include <functional>
#include <string>
#include <vector>

#include "Process.h"

namespace kivreg::test {

// The system calls with which a program changes files.
extern const std::vector<std::string> kFileCalls;

// Empty when strace can trace a program here, else why not.
std::string straceUnavailable();

// For every call a clean run of argv makes (of `calls`): prepare(), then the
// run with that call replaced by `action` as strace's inject takes it
// ("signal=KILL", "error=ENOSPC"), then check(call, n, result). Returns the
// number of runs.
int forEachFault(const std::vector<std::string>& argv, const std::vector<std::string>& calls,
                 const std::string& action, const RunOptions& options,
                 const std::function<void()>& prepare,
                 const std::function<void(const std::string&, int, const RunResult&)>& check);

}  // namespace kivreg::test
