// Connect files: written from arguments or interactively, used and shown.

#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "E2eFixture.h"

namespace kivreg::test {
namespace {

using testing::HasSubstr;
using testing::Not;

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
        EXPECT_EQ(std::filesystem::status(conn).permissions() & std::filesystem::perms::all,
                  std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
        EXPECT_THAT(readFile(conn), Not(HasSubstr("s3cret-pw")));

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
        EXPECT_THAT(r.out, Not(HasSubstr("pass_param")));
        EXPECT_THAT(r.out, Not(HasSubstr("s3cret-pw")));
    }
    EXPECT_EQ(server.stored().size(), 2u);
}

TEST_F(Configure, PortRuleAndUnreadableFiles) {
    for (const char* port : {"1023", "65536", "http", "0"}) {
        SCOPED_TRACE(port);
        const RunResult r =
            kivreg({"-configure", path("c.conn"), "-user", "u", "-host", "h", "-port", port});
        EXPECT_EQ(r.exitCode, 1) << r.out;
        EXPECT_THAT(r.out, HasSubstr("Invalid port specified!"));
    }
    EXPECT_FALSE(std::filesystem::exists(m_dir / "c.conn"));
    const RunResult r = kivreg({"-showconnect", path("absent.conn")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_THAT(r.out,
                HasSubstr("Failed to open configuration file '" + path("absent.conn") + "'"));
}

// The interactive dialogue, typed into a real terminal.
class Terminal {
public:
    explicit Terminal(const std::vector<std::string>& argv, const std::string& cwd) {
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        m_pid = forkpty(&m_master, nullptr, nullptr, nullptr);
        if (m_pid == 0) {
            if (chdir(cwd.c_str()) != 0) _exit(126);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    ~Terminal() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_master >= 0) close(m_master);
    }
    // Reads until `text` has appeared after everything awaited before.
    bool expect(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (;;) {
            const size_t at = m_screen.find(text, m_seen);
            if (at != std::string::npos) {
                m_seen = at + text.size();
                return true;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd pfd{m_master, POLLIN, 0};
            if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
            char buf[4096];
            const ssize_t n = read(m_master, buf, sizeof buf);
            if (n <= 0) return false;
            m_screen.append(buf, static_cast<size_t>(n));
        }
    }
    // Hidden input switches echo off after its prompt is out; keys typed
    // before that would be echoed by the terminal, as they would for a person
    // typing ahead. Wait for the switch, as a person reading the prompt does.
    bool echoOff() {
        for (int i = 0; i < 2000; ++i) {
            termios mode{};
            if (tcgetattr(m_master, &mode) == 0 && !(mode.c_lflag & ECHO)) return true;
            usleep(5000);
        }
        return false;
    }
    void type(const std::string& keys) {
        ASSERT_EQ(write(m_master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    int wait() {
        int status = 0;
        for (int i = 0; i < 2000 && waitpid(m_pid, &status, WNOHANG) == 0; ++i) {
            char buf[4096];
            pollfd pfd{m_master, POLLIN, 0};
            if (poll(&pfd, 1, 10) > 0 && read(m_master, buf, sizeof buf) > 0) continue;
        }
        const pid_t pid = m_pid;
        m_pid = -1;
        if (waitpid(pid, &status, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    const std::string& screen() const { return m_screen; }

private:
    pid_t m_pid = -1;
    int m_master = -1;
    std::string m_screen;
    size_t m_seen = 0;
};

// Waits for each text in turn and types the answer after it; an empty answer
// only waits. Before a password the terminal's echo must be off.
void converse(Terminal& t, const std::vector<std::pair<std::string, std::string>>& steps) {
    for (const auto& [text, answer] : steps) {
        ASSERT_TRUE(t.expect(text)) << text << "\n" << t.screen();
        if (text.find("Password") != std::string::npos) {
            ASSERT_TRUE(t.echoOff());
        }
        if (!answer.empty()) t.type(answer);
    }
}

TEST_F(Configure, InteractiveDialogueThroughATerminal) {
    const std::string conn = path("dialog.conn");
    Terminal t({kProgram, "-configure", conn, "-usekeyfile"}, m_dir.path().string());
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
    EXPECT_THAT(t.screen(), Not(HasSubstr("s3cret-pw")));

    const RunResult r = kivreg({"-showconnect", conn, "-usekeyfile"});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("host_param=dir.example.org\n"));
    EXPECT_THAT(r.out, HasSubstr("https_param=y\n"));
    EXPECT_THAT(r.out, HasSubstr("port_param=8443\n"));

    // Quitting writes nothing, and leaves the files of the first run alone.
    const std::string before = readFile(conn);
    Terminal quit({kProgram, "-configure", path("quit.conn")}, m_dir.path().string());
    converse(quit, {round.begin(), round.end() - 1});
    converse(quit, {{"[y=yes/n=no/q=quit] ", "Q\r"}});
    EXPECT_EQ(quit.wait(), 1);
    EXPECT_FALSE(std::filesystem::exists(path("quit.conn")));
    EXPECT_EQ(readFile(conn), before);
}

}  // namespace
}  // namespace kivreg::test
