// --if-changed: what the directory already holds is not sent again, and the
// record of what it took survives whatever stops a run.

#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "E2eFixture.h"
#include "Faults.h"

namespace kivreg::test {
namespace {

namespace fs = std::filesystem;

// The target's own (an emulator finds it under its sysroot).
const char* const kFaketime = "/usr/lib/" KIVREG_LIBRARY_ARCH "/faketime/libfaketime.so.1";

// The clock of a run moved by `offset` ("+2h", "-1d").
RunOptions shifted(const std::string& offset) {
    const char* asan = std::getenv("ASAN_OPTIONS");
    return {.env = {{"LD_PRELOAD", kFaketime},
                    {"FAKETIME", offset},
                    {"FAKETIME_DONT_FAKE_MONOTONIC", "1"},
                    // The sanitizer's runtime need not come first for this.
                    {"ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0"}}};
}

class IfChanged : public E2e {
protected:
    // A document whose one value is the symbol ${v}.
    std::string document(const std::string& supplier, const std::string& vendor = "") {
        return E2e::document(supplier, "${v}", vendor);
    }
    std::string symbols(const std::string& value) {
        return writeDoc("v-" + value + ".properties", "v=" + value + "\n");
    }
    std::vector<std::string> registration(const std::string& port, const std::string& doc,
                                          const std::string& symbolFile,
                                          std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"-symbolfile", symbolFile, "--if-changed", "--spool", m_spool});
        return registering(doc, kUser, port, more);
    }
    // The records in a spool; a stopped run's temporary file is none.
    std::vector<std::string> records(const std::string& spool = "") const {
        return filesIn((spool.empty() ? m_spool : spool) + "/sent", ".sent");
    }

    static constexpr const char* kUser = "record-user";
    static constexpr const char* kPass = "s3cret-pw";
    const std::string m_spool = path("spool");
};

bool sent(const RunResult& r) {
    return r.out.find("HTTP send successful.") != std::string::npos;
}

// Skipped: success, no connection, and the line between the banners.
void expectSkipped(const RunResult& r) {
    static const std::string time = R"(\w{3} \w{3} \d\d \d\d:\d\d:\d\d \d{4})";
    static const std::regex line("\n" + time + " Registration unchanged since " + time +
                                 R"(: not sent \(sent again after )" + time + R"(\)\.\n)");
    EXPECT_EQ(r.exitCode, 0) << r.out;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, line)) << r.out;
    const size_t at = static_cast<size_t>(m.position(0));
    EXPECT_LT(r.out.find("*** Start KIV Registration ***"), at);
    EXPECT_GT(r.out.find("*** End KIV Registration ***"), at);
    EXPECT_THAT(r.out, Not(HasSubstr("Used URL")));
}

TEST_F(IfChanged, SameBodyForTheSameKeyIsNotSentAgainAnyOtherIs) {
    DirServer server(m_dir.path(), {.user = kUser});
    const std::string port = server.portText();
    const std::string doc = document("S");
    const std::vector<std::string> base = registration(port, doc, symbols("one"));
    ASSERT_EQ(kivreg(base).exitCode, 0);
    expectSkipped(kivreg(base));
    EXPECT_EQ(server.stored().size(), 1u);

    // The record: the key's parts, the user only as a hash, never the body or a secret.
    ASSERT_EQ(records().size(), 1u);
    const std::string record = readFile(records()[0]);
    EXPECT_EQ(fs::status(records()[0]).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_THAT(record, HasSubstr("\nport: " + port + "\n"));
    EXPECT_THAT(record, HasSubstr("\nbody-bytes: " + std::to_string(server.stored()[0].size())));
    // The hash of the bytes the directory got, as the hash was taken while rendering.
    const RunResult digest = run({"/usr/bin/openssl", "dgst", "-sha256", "-r",
                                  (m_dir.path() / "store" / "registration-0001.xml").string()});
    EXPECT_THAT(record, HasSubstr("\nbody-sha256: " + digest.out.substr(0, 64) + "\n"));
    for (const char* secret : {kPass, kUser, "one", "<value>"})
        EXPECT_THAT(record, Not(HasSubstr(secret)));

    DirServer other(m_dir.path() / "other", {.user = kUser});
    std::vector<std::string> otherUser = base;
    *(std::find(otherUser.begin(), otherUser.end(), kUser)) = "other-user";
    const struct {
        const char* what;
        std::vector<std::string> args;
    } rows[] = {
        {"another port", registration(other.portText(), doc, symbols("one"))},
        {"another user (refused by the server)", otherUser},
        {"the old format", registration(port, doc, symbols("one"), {"-oldtransferdtd"})},
        {"another supplier name", registration(port, document("T"), symbols("one"))},
        {"another vendor", registration(port, document("S", "V"), symbols("one"))},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_TRUE(sent(kivreg(row.args)));
        expectSkipped(kivreg(base));  // its record is untouched
    }
    EXPECT_EQ(records().size(), 5u);  // the refused user's is not among them

    // A changed value is sent, and is then what the directory holds.
    const std::vector<std::string> changed = registration(port, doc, symbols("two"));
    EXPECT_TRUE(sent(kivreg(changed)));
    expectSkipped(kivreg(changed));
    EXPECT_TRUE(sent(kivreg(base)));
    EXPECT_EQ(server.stored().size(), 6u);
}

TEST_F(IfChanged, TimeUpAWaitingEntryOrABadRecordSends) {
    if (!fs::exists(kFaketime)) GTEST_SKIP() << "faketime is not installed";
    DirServer server(m_dir.path(), {.user = kUser, .first = "200,200,200,503"});
    const std::string doc = document("S");
    const std::vector<std::string> base =
        registration(server.portText(), doc, symbols("one"), {"--resend-after", "1h"});
    ASSERT_EQ(kivreg(base).exitCode, 0);
    expectSkipped(kivreg(base, shifted("+59m")));
    RunResult r = kivreg(base, shifted("+61m"));
    EXPECT_TRUE(sent(r)) << r.out;
    // That record's 200 lies ahead of the real clock, as if it had gone back.
    EXPECT_TRUE(sent(kivreg(base)));
    expectSkipped(kivreg(base));

    // 503, kept: the directory lacks the newest, so the older body goes again.
    r = kivreg(registration(server.portText(), doc, symbols("two")));
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_THAT(r.out, HasSubstr("Registration kept in spool"));
    r = kivreg(base);
    EXPECT_TRUE(sent(r)) << r.out;
    EXPECT_THAT(r.out, HasSubstr("Spooled registration superseded"));
    expectSkipped(kivreg(base));

    ASSERT_EQ(records().size(), 1u);
    const std::string file = records()[0];
    const std::string good = readFile(file);
    const size_t version = good.find("\nversion: ") + 10;
    const struct {
        const char* what;
        std::string bytes;
    } damaged[] = {
        {"cut short", good.substr(0, good.size() - 2)},
        {"another version", std::string(good).insert(version, "0.")},
    };
    for (const auto& d : damaged) {
        SCOPED_TRACE(d.what);
        writeFile(file, d.bytes);
        EXPECT_TRUE(sent(kivreg(base)));
        expectSkipped(kivreg(base));  // written whole again
    }
    EXPECT_EQ(server.stored().size(), 7u);
}

TEST_F(IfChanged, BadSettingsAreRefusedBeforeAnything) {
    DirServer server(m_dir.path(), {.user = kUser});
    const std::string doc = document("S");
    std::vector<std::string> noSpool = registration(server.portText(), doc, symbols("one"));
    noSpool.resize(noSpool.size() - 2);
    std::vector<std::string> plain = noSpool;
    plain.pop_back();
    const std::string spoolNeeded = "--if-changed needs a spool: --spool DIR or KIVREG_SPOOL.";
    const std::string badTime = " refused: a time of at most 365 days is needed";
    const struct {
        std::vector<std::string> args;
        std::map<std::string, std::string> env;
        std::string message;  // empty: accepted
    } rows[] = {
        {noSpool, {}, spoolNeeded},
        {plain, {{"KIVREG_IF_CHANGED", "1"}}, spoolNeeded},
        {plain, {{"KIVREG_IF_CHANGED", "yes"}}, ""},  // only 1 switches it on
        {registration(server.portText(), doc, symbols("one"), {"--resend-after", "366d"}),
         {},
         "Option --resend-after 366d" + badTime},
        {registration(server.portText(), doc, symbols("one")),
         {{"KIVREG_RESEND_AFTER", "1w"}},
         "KIVREG_RESEND_AFTER=1w" + badTime},
        {registration(server.portText(), doc, symbols("one"), {"--resend-after", "365d"}),
         {{"KIVREG_RESEND_AFTER", "1w"}},
         ""},
    };
    size_t accepted = 0;
    for (const auto& row : rows) {
        const RunResult r = kivreg(row.args, {.env = row.env});
        if (row.message.empty()) {
            EXPECT_EQ(r.exitCode, 0) << r.out;
            ++accepted;
            continue;
        }
        EXPECT_EQ(r.exitCode, 1) << r.out;
        EXPECT_THAT(r.out, HasSubstr(row.message));
        EXPECT_THAT(r.out, Not(HasSubstr("*** Start KIV Registration ***")));
        EXPECT_EQ(server.stored().size(), accepted);
        EXPECT_FALSE(fs::exists(m_spool));
    }
}

// A run stopped at any file-changing call while it records leaves the older
// record or the new one, whole.
TEST_F(IfChanged, StoppedAtAnyFileCallLeavesAWholeRecord) {
    if (const std::string why = straceUnavailable(); !why.empty()) GTEST_SKIP() << why;
    DirServer server(m_dir.path(), {.user = kUser});
    const TempDir memory(fs::is_directory("/dev/shm") ? "/dev/shm" : m_dir.path());
    const std::string older = (memory / "older").string();
    const std::string work = (memory / "work").string();
    const auto argvFor = [&](const std::string& value, const std::string& dir) {
        std::vector<std::string> argv = {kProgram};
        for (std::string& a : registration(server.portText(), document("S"), symbols(value)))
            argv.push_back(a == m_spool ? dir : a);
        return argv;
    };
    // A record without its time, which differs from run to run.
    const auto untimed = [&](const std::string& dir) {
        const std::vector<std::string> files = records(dir);
        EXPECT_EQ(files.size(), 1u);
        const std::string bytes = files.empty() ? "" : readFile(files[0]);
        return bytes.substr(0, bytes.find("\ntime: "));
    };
    ASSERT_EQ(run(argvFor("newer", older)).exitCode, 0);
    const std::string newer = untimed(older);
    fs::remove_all(older);
    ASSERT_EQ(run(argvFor("older", older)).exitCode, 0);
    const std::string old = untimed(older);
    ASSERT_NE(old, newer);
    const std::vector<std::string> argv = argvFor("newer", work);
    std::set<std::string> seen;
    const int runs = forEachFault(
        argv, kFileCalls, "signal=KILL", {},
        [&] {
            fs::remove_all(work);
            fs::copy(older, work, fs::copy_options::recursive);
        },
        [&](const std::string& call, int n, const RunResult&) {
            SCOPED_TRACE(call + " " + std::to_string(n));
            const std::string left = untimed(work);
            EXPECT_TRUE(left == old || left == newer) << left;
            seen.insert(left == old ? "older" : "newer");
        });
    EXPECT_GT(runs, 10);
    EXPECT_EQ(seen, (std::set<std::string>{"older", "newer"}));
    // What a stopped run left behind goes with the next record.
    run(argvFor("other", work));
    for (const auto& e : fs::directory_iterator(work + "/sent"))
        EXPECT_EQ(e.path().extension(), ".sent") << e.path();
}

// A skip is a success for monitoring, told apart from a delivery; a flush
// with nothing to deliver leaves the file alone.
TEST_F(IfChanged, StatusFileAfterASkipAndAnEmptyFlush) {
    if (!fs::exists("/usr/bin/promtool")) GTEST_SKIP() << "promtool is not installed";
    if (!fs::exists(kFaketime)) GTEST_SKIP() << "faketime is not installed";
    DirServer server(m_dir.path(), {.user = kUser});
    const std::string status = path("kivreg.prom");
    const std::vector<std::string> args =
        registration(server.portText(), document("S"), symbols("one"), {"--status-file", status});
    ASSERT_EQ(kivreg(args).exitCode, 0);
    auto m = checkedMetrics(status);
    EXPECT_EQ(m["kivreg_last_run_skipped"], 0);
    EXPECT_EQ(m["kivreg_last_delivery_timestamp_seconds"], m["kivreg_last_run_timestamp_seconds"]);
    const double delivered = m["kivreg_last_delivery_timestamp_seconds"];

    expectSkipped(kivreg(args, shifted("+2h")));
    m = checkedMetrics(status);
    EXPECT_EQ(m["kivreg_last_run_skipped"], 1);
    EXPECT_EQ(m["kivreg_last_body_bytes"], server.stored().at(0).size());
    EXPECT_EQ(m["kivreg_last_success_timestamp_seconds"], m["kivreg_last_run_timestamp_seconds"]);
    EXPECT_GT(m["kivreg_last_success_timestamp_seconds"], delivered + 7000);
    EXPECT_EQ(m["kivreg_last_delivery_timestamp_seconds"], delivered);

    // Nothing to flush: the file stays as it is.
    const std::string before = readFile(status);
    const RunResult r =
        kivreg({"--flush", "-user", kUser, "-pass", kPass, "-host", "127.0.0.1", "-port",
                server.portText(), "--spool", m_spool, "--status-file", status});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("Spool holds no registration for"));
    EXPECT_EQ(readFile(status), before);
}

}  // namespace
}  // namespace kivreg::test
