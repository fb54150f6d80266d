// The spool and the status file: registrations the directory could not take
// kept and delivered later, and what a run tells monitoring.

#include <algorithm>
#include <filesystem>
#include <set>

#include "E2eFixture.h"
#include "Faults.h"

namespace kivreg::test {
namespace {

namespace fs = std::filesystem;

class Spool : public E2e {
protected:
    std::vector<std::string> registration(const std::string& doc, const std::string& port,
                                          std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"--spool", m_spool});
        return registering(doc, kUser, port, more);
    }
    std::vector<std::string> flush(const std::string& port) {
        return {"--flush",   "-user", kUser, "-pass",   "s3cret-pw", "-host",
                "127.0.0.1", "-port", port,  "--spool", m_spool};
    }
    // The spool's entries, by name.
    std::vector<std::string> entries(const std::string& dir = "") const {
        return filesIn(dir.empty() ? m_spool : dir, ".kiv");
    }
    // No credentials in any spool file, and each entry's bytes.
    std::vector<std::string> bodies() const {
        std::vector<std::string> out;
        for (const auto& e : fs::recursive_directory_iterator(m_spool)) {
            if (!e.is_regular_file()) continue;
            const std::string bytes = readFile(e.path());
            for (const char* secret : {"s3cret-pw", kUser, "c3Bvb2wtdXNlcjpzM2NyZXQtcHc="})
                EXPECT_THAT(bytes, Not(HasSubstr(secret))) << e.path();
        }
        for (const std::string& entry : entries()) out.push_back(body(entry));
        return out;
    }
    // The entry a run's log says it kept.
    static std::string keptBy(const RunResult& r) {
        const std::string label = "Registration kept in spool: ";
        const size_t at = r.out.find(label);
        if (at == std::string::npos) return "";
        return r.out.substr(at + label.size(), r.out.find('\n', at) - at - label.size());
    }
    static std::string body(const std::string& entry) {
        const std::string bytes = readFile(entry);
        return bytes.substr(bytes.find("\n\n") + 2);
    }

    static constexpr const char* kUser = "spool-user";
    const std::string m_spool = path("spool");
};

TEST_F(Spool, KeptUntilASuccessThenDeliveredWithTheFirstAttemptsBytes) {
    DirServer server(m_dir.path(), {.user = kUser, .first = "503,503,503,503"});
    const std::string port = server.portText();
    const std::string before = utc("%Y-%m-%dT%H:%M:%S");
    RunResult r = kivreg(registration(document("A", "first"), port));
    const std::string after = utc("%Y-%m-%dT%H:%M:%S");
    EXPECT_EQ(r.exitCode, 1) << r.out;
    ASSERT_EQ(entries().size(), 1u);
    const std::string entryA = entries()[0];
    // Kept with the time of the run, in UTC to the nanosecond.
    const std::string head = readFile(entryA);
    const size_t at = head.find("\ntime: ") + 7;
    const std::string time = head.substr(at, head.find('\n', at) - at);
    EXPECT_EQ(time.size(), 30u) << time;
    EXPECT_GE(time, before);
    EXPECT_LE(time.substr(0, 19), after);
    EXPECT_THAT(r.out, HasSubstr("Registration kept in spool: " + entryA + "\n"));
    EXPECT_EQ(fs::status(entryA).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(fs::status(m_spool).permissions() & fs::perms::all, fs::perms::owner_all);
    EXPECT_EQ(bodies(), std::vector<std::string>{server.stored()[0]});

    // A newer document of the same supplier replaces the entry; another
    // supplier's joins it, as does one of the same name from another vendor.
    r = kivreg(registration(document("A", "second"), port));
    EXPECT_EQ(entries(), std::vector<std::string>{entryA});
    EXPECT_EQ(bodies(), std::vector<std::string>{server.stored()[1]});
    r = kivreg(registration(document("B", "other"), port));
    const std::string entryB = keptBy(r);
    EXPECT_EQ(body(entryB), server.stored()[2]);
    r = kivreg(registration(document("A", "vendor", "V"), port));
    const std::string entryV = keptBy(r);
    EXPECT_EQ(body(entryV), server.stored()[3]);
    ASSERT_EQ(entries().size(), 3u);

    // A's success makes its entry moot, unsent; B's goes after it.
    r = kivreg(registration(document("A", "third"), port));
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("Spooled registration superseded: " + entryA + "\n"));
    EXPECT_THAT(r.out, HasSubstr("Spooled registration delivered: " + entryB + "\n"));
    EXPECT_THAT(r.out, HasSubstr("Spooled registration delivered: " + entryV + "\n"));
    EXPECT_LT(r.out.find("superseded"), r.out.find("delivered"));
    EXPECT_LT(r.out.find("delivered"), r.out.find("*** End KIV Registration ***"));
    EXPECT_TRUE(entries().empty());
    const std::vector<std::string> stored = server.stored();
    ASSERT_EQ(stored.size(), 7u);
    EXPECT_EQ(stored[5], stored[2]);  // oldest first
    EXPECT_EQ(stored[6], stored[3]);

    // Final refusals and failures before the transfer keep nothing.
    for (const auto& args : {registration(path("missing.xml"), port),
                             registration(document("C", "bad port"), "65537")}) {
        r = kivreg(args);
        EXPECT_EQ(r.exitCode, 1) << r.out;
    }
    DirServer refusing(m_dir.path() / "other", {.user = kUser, .status = 400});
    r = kivreg(registration(document("C", "refused"), refusing.portText()));
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_THAT(r.out, Not(HasSubstr("spool")));
    EXPECT_TRUE(entries().empty());
}

TEST_F(Spool, FlushDeliversOldestFirstMovesRefusalsAsideAndStopsAtAnOutage) {
    DirServer server(m_dir.path(), {.user = kUser, .first = "503,503,503,503,200,400,503"});
    const std::string port = server.portText();
    std::vector<std::string> kept;  // W, X, Y, Z: oldest first
    for (const char* supplier : {"W", "X", "Y", "Z"})
        kept.push_back(keptBy(kivreg(registration(document(supplier, supplier), port))));
    ASSERT_EQ(entries().size(), 4u);
    const std::vector<std::string> sent = server.stored();

    // W delivered, X refused for good, Y met an outage: Y and Z wait.
    RunResult r = kivreg(flush(port));
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_THAT(r.out, HasSubstr("Spooled registration delivered: " + kept[0] + "\n"));
    const std::string rejected = m_spool + "/rejected" + kept[1].substr(kept[1].rfind('/'));
    EXPECT_THAT(r.out, HasSubstr("Spooled registration rejected (HTTP status 400): moved to " +
                                 rejected + "\n"));
    std::vector<std::string> waiting = {kept[2], kept[3]};
    std::sort(waiting.begin(), waiting.end());
    EXPECT_EQ(entries(), waiting);
    EXPECT_EQ(readFile(rejected).substr(readFile(rejected).find("\n\n") + 2), sent[1]);
    EXPECT_EQ(server.stored().size(), 7u);

    // The option rules over the environment; the environment serves library hosts.
    r = kivreg(flush(port), {.env = {{"KIVREG_SPOOL", path("elsewhere")}}});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_FALSE(fs::exists(path("elsewhere")));
    const std::vector<std::string> stored = server.stored();
    ASSERT_EQ(stored.size(), 9u);
    EXPECT_EQ(std::vector<std::string>(stored.begin() + 7, stored.end()),
              (std::vector<std::string>{sent[2], sent[3]}));
    const RunOptions fromEnv{.env = {{"KIVREG_SPOOL", m_spool}}};
    std::vector<std::string> noOption = flush(port);
    noOption.resize(noOption.size() - 2);
    r = kivreg(noOption, fromEnv);
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out,
                HasSubstr("Spool holds no registration for http://127.0.0.1:" + port + "/kiv/ds"));
    EXPECT_EQ(server.stored().size(), 9u);

    // No connection: kept, and a flush to that destination fails as the registration did.
    const std::string closed = closedPort();
    EXPECT_EQ(kivreg(registration(document("V", "v"), closed)).exitCode, 2);
    r = kivreg(flush(closed));
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_EQ(entries().size(), 1u);
    r = kivreg(noOption);
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_THAT(r.out, HasSubstr("--flush needs a spool: --spool DIR or KIVREG_SPOOL."));
}

TEST_F(Spool, SizeBoundRemovesTheOldestFirst) {
    const std::string closed = closedPort();
    const std::string big(400000, 'x');
    std::vector<std::string> kept;
    for (const char* supplier : {"P", "Q", "R"}) {
        const RunResult r =
            kivreg(registration(document(supplier, big), closed, {"--spool-max-mb", "1"}));
        EXPECT_EQ(r.exitCode, 2) << r.out;
        kept.push_back(keptBy(r));
        if (kept.size() == 3) {
            EXPECT_THAT(r.out, HasSubstr("Spool limit reached, removed: " + kept[0] + "\n"));
        }
    }
    std::vector<std::string> left = {kept[1], kept[2]};
    std::sort(left.begin(), left.end());
    EXPECT_EQ(entries(), left);
    uintmax_t total = 0;
    for (const std::string& e : entries()) total += fs::file_size(e);
    EXPECT_LE(total, 1u << 20);

    // An entry beyond the bound on its own is not kept and removes nothing.
    RunResult r = kivreg(
        registration(document("S", std::string(1100000, 'y')), closed, {"--spool-max-mb", "1"}));
    EXPECT_THAT(r.out, HasSubstr("Registration not kept in spool: its "));
    EXPECT_EQ(entries(), left);
    r = kivreg(registration(document("S", "s"), closed, {"--spool-max-mb", "0"}));
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_THAT(r.out, HasSubstr("Option --spool-max-mb 0 refused: a number from 1 to 1048576"));
}

// A damaged entry is moved aside with its reason, and never stops the others.
TEST_F(Spool, DamagedEntriesAreMovedAsideAndTheGoodOneDelivered) {
    DirServer server(m_dir.path(), {.user = kUser, .first = "503"});
    const std::string entry = keptBy(kivreg(registration(document("U", "u"), server.portText())));
    ASSERT_FALSE(entry.empty());
    const std::string whole = readFile(entry);
    const size_t format = whole.find("format: ");
    const size_t size = whole.find("body-bytes: ");
    const auto edited = [&](size_t at, size_t erase, const std::string& insert) {
        return std::string(whole).replace(at, erase, insert);
    };
    const struct {
        const char* reason;
        std::string bytes;
    } cases[] = {
        {"header line malformed", edited(format, 0, "garbage\n")},
        {"header line missing: format", edited(format, whole.find('\n', format) + 1 - format, "")},
        {"header line repeated: format", edited(format, 0, "format: current\n")},
        {"not a spool entry", "X" + whole.substr(1)},
        {"unknown format", edited(0, 14, "kivreg-spool 2")},
        {"unknown format", edited(format, 15, "format: xml")},
        {"number out of range: body-bytes", edited(size + 12, 0, "99999999999999999")},
        {"number out of range: port", edited(whole.find("port: ") + 6, 0, "9")},
        {"number malformed: body-bytes", edited(size + 12, 0, "-")},
        {"header not ended", whole.substr(0, whole.find("\n\n") + 1)},
        {"body shorter than announced", whole.substr(0, whole.size() - 1)},
        {"body longer than announced", whole + "x"},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        writeFile(m_spool + "/d" + std::to_string(i) + ".kiv", cases[i].bytes);
    const RunResult r = kivreg(flush(server.portText()));
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("Spooled registration delivered: " + entry + "\n"));
    ASSERT_EQ(server.stored().size(), 2u);
    EXPECT_EQ(server.stored()[1], server.stored()[0]);
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(cases[i].reason);
        const std::string moved = m_spool + "/damaged/d" + std::to_string(i) + ".kiv";
        EXPECT_THAT(r.out, HasSubstr("Spooled registration damaged (" +
                                     std::string(cases[i].reason) + "): moved to " + moved + "\n"));
        EXPECT_EQ(readFile(moved), cases[i].bytes);
    }
    EXPECT_TRUE(entries().empty());
}

TEST_F(Spool, TwoFlushesAtOnceDeliverEachEntryOnce) {
    DirServer server(m_dir.path(), {.user = kUser, .first = "503,503,503,503", .delay = "0.2"});
    for (const char* supplier : {"K", "L", "M", "N"})
        EXPECT_EQ(kivreg(registration(document(supplier, supplier), server.portText())).exitCode,
                  1);
    const std::vector<std::string> kept = server.stored();
    auto first = startKivreg(flush(server.portText()));
    auto second = startKivreg(flush(server.portText()));
    EXPECT_EQ(first->wait(), 0) << first->output();
    EXPECT_EQ(second->wait(), 0) << second->output();
    const std::vector<std::string> stored = server.stored();
    ASSERT_EQ(stored.size(), 8u);
    for (const std::string& body : kept)
        EXPECT_EQ(std::count(stored.begin(), stored.end(), body), 2);
    EXPECT_EQ(occurrences(first->output() + second->output(), "Spooled registration delivered"),
              4u);
    EXPECT_TRUE(entries().empty());
}

// A run stopped at any file-changing call leaves the older entry or the new
// one, whole, and nothing else that passes for an entry.
TEST_F(Spool, StoppedAtAnyFileCallLeavesOnlyWholeEntries) {
    if (const std::string why = straceUnavailable(); !why.empty()) GTEST_SKIP() << why;
    const std::string closed = closedPort();
    // In memory, where fsync is free: the question is what a stop leaves.
    const TempDir memory(fs::is_directory("/dev/shm") ? "/dev/shm" : m_dir.path());
    const std::string older = (memory / "older").string();
    const std::string work = (memory / "work").string();
    const auto argvFor = [&](const std::string& value, const std::string& dir) {
        return std::vector<std::string>{kProgram,    "-file", document("A", value),
                                        "-user",     kUser,   "-host",
                                        "127.0.0.1", "-port", closed,
                                        "--spool",   dir};
    };
    ASSERT_EQ(run(argvFor("older", older)).exitCode, 2);
    const std::string olderBody = body(entries(older).at(0));
    const std::vector<std::string> argv = argvFor("newer", work);
    const auto prepare = [&] {
        fs::remove_all(work);
        fs::copy(older, work);
    };
    std::set<std::string> seen;
    const int runs = forEachFault(
        argv, kFileCalls, "signal=KILL", {}, prepare,
        [&](const std::string& call, int n, const RunResult&) {
            SCOPED_TRACE(call + " " + std::to_string(n));
            const std::vector<std::string> left = entries(work);
            ASSERT_EQ(left.size(), 1u);
            const std::string bytes = readFile(left[0]);
            const std::string kept = body(left[0]);
            EXPECT_THAT(bytes, HasSubstr("\nbody-bytes: " + std::to_string(kept.size()) + "\n"));
            EXPECT_THAT(kept, testing::EndsWith("</kivinfo>"));
            seen.insert(kept == olderBody ? "older" : "newer");
        });
    EXPECT_GT(runs, 10);
    EXPECT_EQ(seen, (std::set<std::string>{"older", "newer"}));
    // What a stopped run left behind goes with the next run that takes the lock.
    run(argv);
    for (const auto& e : fs::directory_iterator(work))
        EXPECT_TRUE(e.path().extension() == ".kiv" || e.path().filename() == ".lock") << e.path();
}

TEST_F(Spool, StatusFileAfterSuccessFailureAndCheck) {
    if (!fs::exists("/usr/bin/promtool")) GTEST_SKIP() << "promtool is not installed";
    DirServer server(m_dir.path(), {.user = kUser});
    const std::string status = path("kivreg.prom");
    const auto checked = [&] {
        EXPECT_EQ(fs::status(status).permissions() & fs::perms::all,
                  fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                      fs::perms::others_read);
        return checkedMetrics(status);
    };
    const std::string doc = document("A", "a");
    RunResult r = kivreg(registration(doc, server.portText(), {"--status-file", status}));
    ASSERT_EQ(r.exitCode, 0) << r.out;
    auto m = checked();
    EXPECT_EQ(m.size(), 23u);
    EXPECT_EQ(m["kivreg_last_run_exit_status"], 0);
    EXPECT_EQ(m["kivreg_last_http_status"], 200);
    EXPECT_EQ(m["kivreg_last_body_bytes"], server.stored().at(0).size());
    EXPECT_EQ(m["kivreg_last_success_timestamp_seconds"], m["kivreg_last_run_timestamp_seconds"]);
    EXPECT_GT(m["kivreg_last_run_timestamp_seconds"], 1.7e9);
    EXPECT_GE(m["kivreg_last_duration_seconds"], 0);
    const double success = m["kivreg_last_success_timestamp_seconds"];

    // A failure, with the file named by the environment as a library host
    // names it: the last success stays, the spool is counted.
    r = kivreg(registration(doc, closedPort()), {.env = {{"KIVREG_STATUS_FILE", status}}});
    ASSERT_EQ(r.exitCode, 2) << r.out;
    m = checked();
    EXPECT_EQ(m["kivreg_last_run_exit_status"], 2);
    EXPECT_EQ(m["kivreg_last_http_status"], 0);
    EXPECT_EQ(m["kivreg_last_success_timestamp_seconds"], success);
    EXPECT_GT(m["kivreg_last_run_timestamp_seconds"], success);
    EXPECT_EQ(m["kivreg_spool_entries"], 1);
    EXPECT_EQ(m["kivreg_spool_bytes"], fs::file_size(entries().at(0)));

    // A check.
    r = kivreg({"--check", "-file", doc, "--status-file", status});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    m = checked();
    EXPECT_EQ(m["kivreg_last_run_exit_status"], 0);
    EXPECT_EQ(m["kivreg_last_body_bytes"], server.stored().at(0).size());
    EXPECT_EQ(m["kivreg_last_success_timestamp_seconds"], success);
}

// Each failure before the transfer names its reason, and only that one; a
// success sets them all back to 0.
TEST_F(Spool, StatusFileNamesTheReasonOfEachFailure) {
    if (!fs::exists("/usr/bin/promtool")) GTEST_SKIP() << "promtool is not installed";
    DirServer server(m_dir.path(), {.user = kUser});
    const std::string status = path("kivreg.prom"), doc = document("A", "a");
    std::string dangling = kDocument;
    dangling.replace(dangling.find("inst_id=\"c1\"/>"), 14, "inst_id=\"c2\"/>");
    const std::string port = server.portText();
    const struct {
        const char* reason;  // empty: success
        std::vector<std::string> args;
    } cases[] = {
        {"document", registration(path("missing.xml"), port)},
        {"references", registration(writeDoc("dangling.xml", dangling), port)},
        {"symbols", registration(doc, port, {"-symbolfile", path("missing.properties")})},
        {"connect_data", registration(doc, "65537")},
        {"connect_data", {"-file", doc, "-host", "127.0.0.1", "-port", port}},
        {"output", {"--check", "-file", doc, "--output", path("no/such/dir/out.xml")}},
        {"spool", {"--flush", "-user", kUser, "-host", "127.0.0.1", "-port", port}},
        {"", registration(doc, port)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[1] + " " + c.args.back());
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"--status-file", status});
        const RunResult r = kivreg(args);
        EXPECT_EQ(r.exitCode == 0, *c.reason == '\0') << r.out;
        const auto m = checkedMetrics(status);  // also of runs that end before the library's
        EXPECT_EQ(failureReason(m), c.reason);
        EXPECT_EQ(m.at("kivreg_last_run_exit_status"), r.exitCode);
    }
}

}  // namespace
}  // namespace kivreg::test
