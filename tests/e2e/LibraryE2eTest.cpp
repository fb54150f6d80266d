// libkivreg.so as a host sees it: its exported surface and a C caller.

#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include "E2eFixture.h"

namespace kivreg::test {
namespace {

namespace fs = std::filesystem;

TEST(SharedLibrary, ExportsExactlyTheTwentyTwoFunctions) {
    const RunResult r = run({"/usr/bin/nm", "-D", "--defined-only", kLibrary});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    std::set<std::string> exported;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string address, type, name;
        fields >> address >> type >> name;
        if (type == "T") exported.insert(name);
        // Anything else defined and global would be a leak of internals.
        else if (type != "A" && !name.empty())
            ADD_FAILURE() << "unexpected symbol " << line;
    }
    // Exactly what the public header declares, and that is the 22 functions.
    std::set<std::string> declared;
    const std::string header = readFile(KIVREG_SOURCE_DIR "/include/kivreg.h");
    const std::regex declaration(R"(KIVREG_API [a-z]+ (KivReg\w+)\()");
    for (std::sregex_iterator it(header.begin(), header.end(), declaration), end; it != end; ++it) {
        declared.insert((*it)[1]);
    }
    EXPECT_EQ(declared.size(), 22u);
    EXPECT_EQ(exported, declared);

    const RunResult soname = run({"/usr/bin/objdump", "-p", kLibrary});
    EXPECT_THAT(soname.out, HasSubstr("SONAME               libkivreg.so.1"));
}

class CHost : public E2e {};

// Without dates, process ids and other numbers, without what every client
// logs once as it sets up (the log file refused, the document loaded), and
// without the trace of single reads, which follow how the answer's bytes
// happen to arrive.
std::string comparable(const std::string& log) {
    static const std::regex date(R"(^[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4} )"),
        pid(R"(\[[^\]\n]*:\d+\]: )"), digits(R"(\d+)"),
        skipped(R"(Invalid log file specified\.|Parsing XML document\.|Supplier .*|CIM Model .*|)"
                R"(.* Read returns .*)");
    std::string out;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        line = std::regex_replace(std::regex_replace(line, date, ""), pid, "[host:pid]: ");
        if (std::regex_match(line, skipped)) continue;
        out += std::regex_replace(line, digits, "#") + "\n";
    }
    return out;
}

// The trace's settings, the log file and the status of one run do not carry
// into the next: three runs in one host log what three hosts log, and each
// registers. The host's locale writes numbers with a decimal comma;
// Prometheus still reads the status file.
TEST_F(CHost, RunsInOneProcessLogAsSeparateProcesses) {
    DirServer server(m_dir.path(), {.user = "host", .password = "pw"});
    writeDoc("doc.xml", kDocument);
    const auto host = [&](const std::string& steps, std::string& trace) {
        fs::remove(path("kivreg_http_trace.log"));
        const RunOptions in{.cwd = m_dir.path(),
                            .env = {{"KIVREG_STATUS_FILE", path("kivreg.prom")}}};
        const RunResult r = run({KIVREG_BINARY_DIR "/kivreg_dlopen_client", kLibrary,
                                 server.portText(), "host", "pw", path("doc.xml"), "d" + steps},
                                in);
        EXPECT_EQ(r.exitCode, 0) << r.out;
        // Its set-up: the log file refused, the connect timeout taken.
        EXPECT_THAT(r.out, HasSubstr("Invalid log file specified."));
        EXPECT_THAT(r.out, HasSubstr("HTTP open timeout     = 30 sec"));
        trace = comparable(readFile(path("kivreg_http_trace.log")));
        return comparable(r.out);
    };
    std::string apart, trace, lastTrace;
    for (const char* steps : {"r", "tr", "tlr"}) apart += host(steps, lastTrace);
    // Then no file the runs opened is left to what the host starts.
    const std::string together = host("rtrlrc", trace);
    EXPECT_EQ(together, apart);
    EXPECT_EQ(trace, lastTrace);
    EXPECT_THAT(trace, HasSubstr("HttpRequest::sendMessage"));
    EXPECT_EQ(occurrences(together, "HttpRequest::sendMessage"), 1u);  // the second run's echo
    EXPECT_EQ(server.stored().size(), 6u);
    EXPECT_THAT(together, Not(HasSubstr("no locale")));
    EXPECT_THAT(readFile(path("kivreg.prom")),
                testing::ContainsRegex("kivreg_last_duration_seconds [0-9]+\\.[0-9]{3}\n"));
    checkedMetrics(path("kivreg.prom"));
}

// The connect data asked for on standard input, kept under a generated key.
TEST_F(CHost, ConfiguresUnderAGeneratedKey) {
    writeDoc("doc.xml", kDocument);
    const RunResult r = run({KIVREG_BINARY_DIR "/kivreg_dlopen_client", kLibrary, "8080", "host",
                             "pw", path("doc.xml"), "k"},
                            {.input = "u\npw\npw\nh\n8080\nn\ny\n"});
    EXPECT_THAT(r.out, HasSubstr("KivRegPerformConfigWithKeyFile=0"));
    EXPECT_TRUE(fs::exists(path("doc.xml.conn.key"))) << r.out;
}

}  // namespace
}  // namespace kivreg::test
