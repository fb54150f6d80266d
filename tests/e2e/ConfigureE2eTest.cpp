// Connect files: written from arguments or interactively, used and shown.

#include <termios.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>

#include "E2eFixture.h"
#include "Faults.h"

namespace kivreg::test {
namespace {

class Configure : public E2e {};

TEST_F(Configure, FromArgumentsThenRegisterAndShow) {
    DirServer server(m_dir.path(), {});
    for (const bool keyFile : {false, true}) {
        SCOPED_TRACE(keyFile ? "with key file" : "built-in key");
        const std::string conn = path(keyFile ? "with-key.conn" : "plain.conn");
        std::vector<std::string> args = {
            "-configure", conn,    "-user",     "supplier", "-pass",
            "s3cret-pw",  "-host", "127.0.0.1", "-port",    server.portText()};
        if (keyFile) args.push_back("-usekeyfile");
        RunResult r = kivreg(args);
        ASSERT_EQ(r.exitCode, 0) << r.out;
        EXPECT_THAT(r.out, HasSubstr("Configuration data successfully stored in file: " + conn));
        EXPECT_EQ(r.out.find("Key file stored in file: ") != std::string::npos, keyFile);

        // The connect file wins over the connection options.
        r = kivreg({"-file", writeDoc("doc.xml", kDocument), "-connectfile", conn, "-user",
                    "nobody", "-host", "ignored.invalid", "-port", "1"});
        EXPECT_EQ(r.exitCode, 0) << r.out;
        EXPECT_THAT(r.out, HasSubstr("Used URL: http://127.0.0.1:" + server.portText()));

        std::vector<std::string> show = {"-showconnect", conn};
        if (keyFile) show.push_back("-usekeyfile");
        r = kivreg(show);
        EXPECT_EQ(r.exitCode, 0) << r.out;
        EXPECT_THAT(r.out,
                    HasSubstr("This is the secured information stored in file: '" + conn + "'"));
        EXPECT_THAT(r.out, HasSubstr("host_param=127.0.0.1\n"));
        EXPECT_THAT(r.out, HasSubstr("https_param=n\n"));
        EXPECT_THAT(r.out, HasSubstr("port_param=" + server.portText() + "\n"));
        EXPECT_THAT(r.out, HasSubstr("user_param=supplier\n"));
        EXPECT_THAT(r.out, Not(HasSubstr("s3cret-pw")));
    }
    EXPECT_EQ(server.stored().size(), 2u);
}

TEST_F(Configure, PortRuleAndUnreadableFiles) {
    const RunResult refused =
        kivreg({"-configure", path("c.conn"), "-user", "u", "-host", "h", "-port", "1023"});
    EXPECT_EQ(refused.exitCode, 1) << refused.out;
    EXPECT_THAT(refused.out, HasSubstr("Invalid port specified!"));
    EXPECT_FALSE(std::filesystem::exists(m_dir / "c.conn"));
    const RunResult r = kivreg({"-showconnect", path("absent.conn")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_THAT(r.out,
                HasSubstr("Failed to open configuration file '" + path("absent.conn") + "'"));
}

// Every file and its bytes: a directory's whole state.
std::map<std::string, std::string> snapshot(const std::filesystem::path& dir) {
    std::map<std::string, std::string> files;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        files[e.path().filename().string()] = readFile(e.path());
    return files;
}

// A configure stopped or failed at any file-changing call leaves a connect
// file that reads as the complete old settings or the complete new ones; a
// configure that reports failure leaves the old files exactly as they were.
TEST_F(Configure, StoppedOrFailedAtAnyCallLeavesTheOldOrTheNewSettings) {
    if (const std::string why = straceUnavailable(); !why.empty()) GTEST_SKIP() << why;
    const auto settings = [](const char* user, const char* host, const char* port) {
        return std::vector<std::string>{"-user", user, "-pass", "pw", "-host", host, "-port", port};
    };
    const std::vector<std::string> before = settings("olduser", "old.example", "1111");
    const std::vector<std::string> after = settings("newuser", "new.example", "2222");
    const auto shows = [](const std::string& out, const std::vector<std::string>& s) {
        return out.find("user_param=" + s[1] + "\n") != std::string::npos &&
               out.find("host_param=" + s[5] + "\n") != std::string::npos &&
               out.find("port_param=" + s[7] + "\n") != std::string::npos;
    };
    // What a stop leaves is the question, not the disk: in memory every
    // fsync is free, and the hundreds of runs take seconds.
    const TempDir memory(std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : m_dir.path());
    const std::filesystem::path work = memory / "work";
    const struct {
        bool keyBefore, keyAfter;
        bool pending;   // the old pair as a store stopped after its switch left it
        bool staleKey;  // beside it, the new key of a store stopped before its switch
    } pairs[] = {{true, true, false, false},
                 {false, true, false, false},
                 {true, false, false, false},
                 {true, true, true, false},
                 {true, false, false, true}};
    const struct {
        std::vector<std::string> calls;
        const char* action;
    } faults[] = {
        {kFileCalls, "signal=KILL"}, {{"write"}, "error=ENOSPC"}, {{"fsync"}, "error=EIO"}};
    for (const auto& pair : pairs) {
        // The old state, made once by a clean configure.
        std::filesystem::remove_all(work);
        std::filesystem::create_directory(work);
        const RunOptions inWork{.cwd = work.string()};
        std::vector<std::string> first = {kProgram, "-configure", "conn"};
        first.insert(first.end(), before.begin(), before.end());
        if (pair.keyBefore) first.push_back("-usekeyfile");
        ASSERT_EQ(run(first, inWork).exitCode, 0);
        if (pair.pending) {
            std::filesystem::rename(work / "conn", work / "conn.new");
            std::filesystem::rename(work / "conn.key", work / "conn.key.new");
            writeFile(work / "conn", "not read while conn.new is there");
        }
        if (pair.staleKey) std::filesystem::copy_file(work / "conn.key", work / "conn.key.new");
        const std::map<std::string, std::string> old = snapshot(work);
        // A store stopped after its switch is finished first: the same pair
        // under its own names.
        std::map<std::string, std::string> finished = old;
        if (pair.pending)
            finished = {{"conn", old.at("conn.new")}, {"conn.key", old.at("conn.key.new")}};
        if (pair.staleKey) finished.erase("conn.key.new");

        std::vector<std::string> configure = {kProgram, "-configure", "conn"};
        configure.insert(configure.end(), after.begin(), after.end());
        if (pair.keyAfter) configure.push_back("-usekeyfile");
        const auto restore = [&] {
            std::filesystem::remove_all(work);
            std::filesystem::create_directory(work);
            for (const auto& [name, bytes] : old) writeFile(work / name, bytes);
        };
        for (const auto& fault : faults) {
            const int runs = forEachFault(
                configure, fault.calls, fault.action, inWork, restore,
                [&](const std::string& call, int n, const RunResult& r) {
                    SCOPED_TRACE(fault.action + (" at " + call) + " " + std::to_string(n) +
                                 (pair.keyBefore ? ", key before" : "") +
                                 (pair.keyAfter ? ", key after" : "") +
                                 (pair.pending ? ", pending" : "") +
                                 (pair.staleKey ? ", stale key" : ""));
                    const RunResult shown = run({kProgram, "-showconnect", "conn"}, inWork);
                    ASSERT_EQ(shown.exitCode, 0) << r.out << shown.out;
                    const bool isOld = shows(shown.out, before);
                    EXPECT_NE(isOld, shows(shown.out, after)) << shown.out;
                    // A failure ends the run naming the file and the system's reason.
                    if (r.exitCode > 0) {
                        const std::string out = r.out.substr(0, r.out.find_last_not_of('\n') + 1);
                        EXPECT_THAT(out.substr(out.rfind('\n') + 1),
                                    testing::ContainsRegex("Failed to [a-z ]+ conn[.a-z]*: [A-Z]"))
                            << r.out;
                    }
                    if (isOld && r.exitCode > 0) {
                        const auto left = snapshot(work);
                        EXPECT_TRUE(left == old || left == finished) << r.out;
                    }
                    // Success is claimed only once the new pair has its names.
                    if (r.exitCode == 0) {
                        EXPECT_FALSE(isOld);
                        EXPECT_FALSE(std::filesystem::exists(work / "conn.new"));
                        EXPECT_THAT(r.out, Not(HasSubstr("Failed")));
                    }
                    // New data that did not reach the disk sets nothing aside.
                    if (call == "fsync" && n == 1 && !pair.pending) {
                        EXPECT_THAT(r.out, Not(HasSubstr("Renamed file")));
                    }
                });
            EXPECT_GT(runs, 0);
        }
    }
}

// Waits for each text in turn and types the answer after it; an empty answer
// only waits. Before a password the terminal's echo must be off.
void converse(Child& t, const std::vector<std::pair<std::string, std::string>>& steps) {
    for (const auto& [text, answer] : steps) {
        ASSERT_TRUE(t.expect(text)) << text << "\n" << t.output();
        if (text.find("Password") != std::string::npos) {
            ASSERT_TRUE(t.echoOff());
        }
        if (!answer.empty()) t.type(answer);
    }
}

TEST_F(Configure, InteractiveDialogueThroughATerminal) {
    const std::string conn = path("dialog.conn");
    const RunOptions terminal{.cwd = m_dir.path().string(), .terminal = true};
    Child t({kProgram, "-configure", conn, "-usekeyfile"}, terminal);
    const std::vector<std::pair<std::string, std::string>> round = {
        {"User Name       : ", "u\r"},
        {"Password        : ", "p\r"},
        {"Verify Password : ", "p\r"},
        {"Server Host     : ", "h\r"},
        {"]: ", "443\r"},
        {"(y/n): ", "n\r"},
        {"' and generate key file '" + conn + ".key'? [y=yes/n=no/q=quit] ", "n\r"}};
    converse(t, {{"Use configuration file '" + conn + "' for output!", ""}});
    converse(t, round);  // "n" asks everything again
    converse(t, {{"User Name       : ", "supplier\r"},
                 {"Password        : ", "pw1\r"},
                 {"Verify Password : ", "pw2\r"},
                 {"Entered values for the password differ, please try again", ""},
                 {"Password        : ", "s3cret-pw\r"},
                 {"*********", ""},
                 {"Verify Password : ", "s3cret-pw\r"},
                 {"Server Host     : ", "dir.example.org\r"},
                 {"Port [80,443,1024..65535]: ", "22\r"},
                 {"Invalid port specified!", ""},
                 {"Port [80,443,1024..65535]: ", " 8443 \r"},
                 {"Use HTTPS? (y/n): ", "Yes\r"},
                 {"Passwd: (secret)", ""},
                 {"Port:   8443", ""},
                 {"HTTPS:  y", ""},
                 {"[y=yes/n=no/q=quit] ", "y\r"},
                 {"Key file stored in file: " + conn + ".key", ""}});
    EXPECT_EQ(t.wait(), 0);
    EXPECT_THAT(t.output(), Not(HasSubstr("s3cret-pw")));

    const RunResult r = kivreg({"-showconnect", conn, "-usekeyfile"});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("host_param=dir.example.org\n"));
    EXPECT_THAT(r.out, HasSubstr("https_param=y\n"));
    EXPECT_THAT(r.out, HasSubstr("port_param=8443\n"));

    // Quitting writes nothing, and leaves the files of the first run alone.
    const std::string before = readFile(conn);
    Child quit({kProgram, "-configure", path("quit.conn")}, terminal);
    converse(quit, {round.begin(), round.end() - 1});
    converse(quit, {{"[y=yes/n=no/q=quit] ", "Q\r"}});
    EXPECT_EQ(quit.wait(), 1);
    EXPECT_FALSE(std::filesystem::exists(path("quit.conn")));
    EXPECT_EQ(readFile(conn), before);
}

// Answers from a pipe: blank lines and leading blanks before an answer are
// skipped, a CR before the line end goes, and of a long answer the first 99
// units count, without half a pair. An input that ends early ends the dialogue.
TEST_F(Configure, DialogueFromAPipe) {
    const std::string conn = path("piped.conn");
    RunOptions piped;
    // U+10FFFF and U+10000: the last and the first pair, at units 99 and 100.
    piped.input = "\n \t" + std::string(98, 'u') + "\xF4\x8F\xBF\xBFu\r\npw\npw\n" +
                  std::string(98, 'h') + "\xF0\x90\x80\x80" + std::string(20, 'h') +
                  "\n8443\nn\ny\n";
    RunResult r = run({kProgram, "-configure", conn}, piped);
    ASSERT_EQ(r.exitCode, 0) << r.out;
    r = kivreg({"-showconnect", conn});
    EXPECT_THAT(r.out, HasSubstr("user_param=" + std::string(98, 'u') + "\n"));
    EXPECT_THAT(r.out, HasSubstr("host_param=" + std::string(98, 'h') + "\n"));
    EXPECT_THAT(r.out, HasSubstr("port_param=8443\n"));

    piped.input = "user\n";
    r = run({kProgram, "-configure", path("ended.conn")}, piped);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_THAT(r.out, HasSubstr("Configuration ended: no more input."));
    EXPECT_FALSE(std::filesystem::exists(path("ended.conn")));
}

TEST_F(Configure, SignalAtThePasswordPromptRestoresTheTerminal) {
    const RunOptions terminal{.cwd = m_dir.path().string(), .terminal = true};
    struct Case {
        std::string keys;  // empty: SIGTERM from outside
        int signal;
    };
    for (const Case& c : {Case{"\x03", SIGINT}, Case{"", SIGTERM}}) {
        Child t({kProgram, "-configure", path("sig.conn")}, terminal);
        ASSERT_TRUE(t.expect("User Name       : ")) << t.output();
        termios before{};
        ASSERT_TRUE(t.terminalMode(before));
        t.type("u\r");
        ASSERT_TRUE(t.expect("Password        : ")) << t.output();
        ASSERT_TRUE(t.echoOff());
        t.type("se");
        ASSERT_TRUE(t.expect("**"));
        if (c.keys.empty()) {
            t.stop();
        } else {
            t.type(c.keys);
            t.wait();
        }
        EXPECT_EQ(t.signal(), c.signal) << t.output();
        termios after{};
        ASSERT_TRUE(t.terminalMode(after));
        EXPECT_EQ(after.c_lflag, before.c_lflag);
        EXPECT_EQ(after.c_iflag, before.c_iflag);
        EXPECT_EQ(after.c_oflag, before.c_oflag);
        EXPECT_EQ(std::memcmp(after.c_cc, before.c_cc, sizeof after.c_cc), 0);
        EXPECT_FALSE(std::filesystem::exists(path("sig.conn")));
    }
}

// Without a shell's job control the stop key cannot stop the program: at the
// password prompt the input stays hidden and is read on; after the prompts
// the key leaves the terminal's mode alone.
TEST_F(Configure, StopKeyKeepsThePasswordHiddenAndLaterAnswersEchoed) {
    if (!testEmulator().empty()) GTEST_SKIP() << kEmulatedSyscalls;
    const RunOptions terminal{.cwd = m_dir.path().string(), .terminal = true};
    Child t({kProgram, "-configure", path("stop.conn")}, terminal);
    ASSERT_TRUE(t.expect("User Name       : ")) << t.output();
    termios before{};
    ASSERT_TRUE(t.terminalMode(before));
    t.type("u\r");
    converse(t, {{"Password        : ", "se"}, {"**", ""}});
    // Keys typed while the handler has the saved mode back would be echoed.
    const long sleeps = t.sleepsInRead();
    ASSERT_GE(sleeps, 0);
    t.type("\x1a");
    ASSERT_GE(t.sleepsInRead(sleeps), 0);
    t.type("cret\r");
    converse(t, {{"Verify Password : ", "secret\r"}, {"Server Host     : ", "\x1a"}});
    EXPECT_THAT(t.output(), HasSubstr("Password        : ******\r\n"));
    t.type("h\r");
    converse(t, {{"]: ", ""}});
    termios after{};
    ASSERT_TRUE(t.terminalMode(after));
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    t.type("8443\r");
    converse(t, {{"(y/n): ", "n\r"}, {"[y=yes/n=no/q=quit] ", "q\r"}});
    EXPECT_EQ(t.wait(), 1) << t.output();
}

}  // namespace
}  // namespace kivreg::test
