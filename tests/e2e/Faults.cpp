#include "Faults.h"

#include <unistd.h>

#include <fstream>
#include <map>
#include <regex>

#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

const char* const kStrace = "/usr/bin/strace";

std::string joined(const std::vector<std::string>& calls) {
    std::string out;
    for (const auto& c : calls) out += (out.empty() ? "" : ",") + c;
    return out;
}

// Under an emulator strace sees its host calls: it makes the program's file
// calls as the same calls, and a stop at one of its own start-up calls ends
// the run before the program began.
std::vector<std::string> under(std::vector<std::string> strace,
                               const std::vector<std::string>& argv) {
    const std::vector<std::string> program = emulated(argv);
    strace.insert(strace.end(), program.begin(), program.end());
    return strace;
}

// How often a clean run of argv makes each of `calls`.
std::map<std::string, int> countCalls(const std::vector<std::string>& argv,
                                      const std::vector<std::string>& calls,
                                      const RunOptions& options) {
    TempDir dir;
    const std::string log = (dir.path() / "trace").string();
    run(under({kStrace, "-f", "-qq", "-o", log, "-e", "trace=" + joined(calls)}, argv), options);
    std::map<std::string, int> counts;
    // "PID name(" opens a call; a call split by a signal resumes on a line of its own.
    const std::regex start(R"(^(?:\d+\s+)?(\w+)\()");
    std::ifstream in(log);
    std::smatch m;
    for (std::string line; std::getline(in, line);)
        if (std::regex_search(line, m, start)) ++counts[m[1]];
    return counts;
}

}  // namespace

// Some architectures (arm64) have only the *at forms of these.
const std::vector<std::string> kFileCalls = {"openat",   "write",    "close",     "link",  "linkat",
                                             "rename",   "renameat", "renameat2", "fsync", "unlink",
                                             "unlinkat", "mkdir",    "mkdirat"};

std::string straceUnavailable() {
    if (::access(kStrace, X_OK) != 0) return "strace is not installed";
    const RunResult r = run({kStrace, "-qq", "-o", "/dev/null", "/bin/true"});
    return r.exitCode == 0 ? "" : "strace cannot trace here: " + r.out;
}

int forEachFault(const std::vector<std::string>& argv, const std::vector<std::string>& calls,
                 const std::string& action, const RunOptions& options,
                 const std::function<void()>& prepare,
                 const std::function<void(const std::string&, int, const RunResult&)>& check) {
    prepare();
    int runs = 0;
    for (const auto& [call, count] : countCalls(argv, calls, options)) {
        for (int n = 1; n <= count; ++n, ++runs) {
            prepare();
            const std::string inject =
                "inject=" + call + ":" + action + ":when=" + std::to_string(n);
            check(call, n,
                  run(under({kStrace, "-f", "-qq", "-o", "/dev/null", "-e", "trace=" + call, "-e",
                             inject},
                            argv),
                      options));
        }
    }
    return runs;
}

}  // namespace kivreg::test
