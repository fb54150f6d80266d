#include <gtest/gtest.h>

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>

#include "secstore/CGetPass.h"
#include "support/CCConv.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

// A child whose standard input and output are the slave side of a
// pseudo-terminal runs one getPasswd() per type(); the test types and reads the
// screen on the master side. Behind each read the child shows a zero byte, the
// result and another zero byte. Every wait is bounded; a hanging child is killed.
class Terminal {
public:
    // `setUp` runs in the child before its first read, as a host's own set-up.
    explicit Terminal(int reads, void (*setUp)() = nullptr) {
        if (::openpty(&m_master, &m_slave, nullptr, nullptr, nullptr) != 0 || ::pipe(m_gate) != 0)
            throw std::runtime_error("openpty");
        ::tcgetattr(m_slave, &m_before);
        m_before.c_iflag &= ~static_cast<tcflag_t>(ICRNL);  // "\r" stays 13
        ::tcsetattr(m_slave, TCSANOW, &m_before);
        std::fflush(nullptr);
        if ((m_pid = ::fork()) == 0) {
            ::setsid();
            ::dup2(m_slave, 0);
            ::dup2(m_slave, 1);
            if (setUp != nullptr) setUp();
            char go;
            for (int i = 0; i < reads && ::read(m_gate[0], &go, 1) == 1; ++i) {
                std::string typed = "(no text)";  // as the connection store would take it
                try {
                    typed = CCConv::toUTF8Str(CGetPass::getPasswd());
                } catch (const ERegExcept&) {
                }
                const std::string shown = '\0' + typed + '\0';
                if (::write(1, shown.data(), shown.size()) != static_cast<ssize_t>(shown.size()))
                    ::_exit(2);
            }
            ::_exit(0);
        }
    }
    ~Terminal() {
        if (m_pid > 0) ::kill(m_pid, SIGKILL), ::waitpid(m_pid, nullptr, 0);
        for (int fd : {m_master, m_slave, m_gate[0], m_gate[1]}) ::close(fd);
    }

    // Starts a read, waits until it has switched the terminal, then types.
    void type(const std::string& keys) const {
        ASSERT_EQ(::write(m_gate[1], "g", 1), 1);
        waitHidden();
        ASSERT_EQ(::write(m_master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    void waitHidden() const {
        for (int i = 0; i < 10000 && (lflag() & ICANON) != 0; ++i) ::usleep(1000);
        ASSERT_EQ(lflag() & (ICANON | ECHO), 0u);
    }
    pid_t pid() const { return m_pid; }
    int master() const { return m_master; }
    // The screen up to the next zero byte: first what a read showed, then its result.
    std::string next() const {
        std::string out;
        char c;
        pollfd in{m_master, POLLIN, 0};
        while (::poll(&in, 1, 10000) > 0 && ::read(m_master, &c, 1) == 1 && c != '\0') out += c;
        return out;
    }
    tcflag_t lflag() const {
        termios t{};
        ::tcgetattr(m_slave, &t);
        return t.c_lflag;
    }
    // Echo and line mode as before the read.
    bool restored() const {
        termios now{};
        ::tcgetattr(m_slave, &now);
        return now.c_lflag == m_before.c_lflag && now.c_cc[VMIN] == m_before.c_cc[VMIN] &&
               now.c_cc[VTIME] == m_before.c_cc[VTIME];
    }

private:
    int m_master = -1, m_slave = -1, m_gate[2] = {-1, -1};
    pid_t m_pid = -1;
    termios m_before{};
};

TEST(CGetPass, HiddenInputThroughATerminal) {
    const std::string hundred(CGetPass::MAX_INPUT_LEN, 'h');
    const struct {
        const char* name;
        std::string keys;
        std::string password;
        std::string screen;
        std::string left;  // what the next read gets with four Enters
    } rows[] = {
        {"backspace erases one star", "ab\bc\r", "ac", "**\b \b*", ""},
        {"backspace on nothing", "\b\bx\n", "x", "*", ""},
        {"three empty Enters are ignored", "\r\n\rx\r", "x", "*", ""},
        {"the fourth empty Enter ends", "\r\r\n\r", "", "", ""},
        {"blanks around are trimmed", " secret \r", "secret", "********", ""},
        {"form feed is ignored, delete is kept", "a\fb\x7f\r", "ab\x7f", "***", ""},
        {"one star per character", "\xC3\xA4\xE2\x82\xAC\r", "\xC3\xA4\xE2\x82\xAC", "**", ""},
        {"backspace erases a whole pair", "a\xF0\x9F\x98\x80\bb\r", "ab", "**\b \b*", ""},
        // The first and last pair: U+10000 (D800 DC00) and U+10FFFF (DBFF DFFF).
        {"backspace erases the outermost pairs", "\xF0\x90\x80\x80\ba\xF4\x8F\xBF\xBF\bb\r", "ab",
         "*\b \b**\b \b*", ""},
        // Around the surrogates, below the shortest forms, above U+10FFFF; a
        // byte that starts no sequence (C1, F5, a lone 80) is Latin-1.
        {"each key at the bounds of UTF-8",
         "\xED\x9F\xBF\xED\xA0\x80\xED\xBF\xBF\xEE\x80\x80\xEF\xBF\xBF\xE0\x9F\xBF\xE0\xA0\x80"
         "\xDF\xBF\xF0\x8F\xBF\xBF\xF4\x90\x80\x80\xC1\xC2\xA0\xF5\x80\r",
         "\xED\x9F\xBF\xEF\xBF\xBD\xEF\xBF\xBD\xEE\x80\x80\xEF\xBF\xBF\xEF\xBF\xBD\xE0\xA0\x80"
         "\xDF\xBF\xEF\xBF\xBD\xEF\xBF\xBD\xC3\x81\xC2\xA0\xC3\xB5\xC2\x80",
         std::string(14, '*'), ""},
        // A byte that cuts a sequence is the next key, also a zero byte,
        // which then ends the text.
        {"a cut sequence leaves its last byte to the next key",
         std::string("\xC3\0b\xE2\x82x\r", 8), "\xEF\xBF\xBD", "*****", ""},
        {"a hundred characters end the input", hundred + "Z", hundred, std::string(100, '*'), "Z"},
        {"a pair fills the last two places", hundred.substr(2) + "\xF0\x9F\x98\x80Z",
         hundred.substr(2) + "\xF0\x9F\x98\x80", std::string(99, '*'), "Z"},
        {"a pair that does not fit ends the input", hundred.substr(1) + "\xF0\x9F\x98\x80Z",
         hundred.substr(1), std::string(99, '*'), "Z"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Terminal t(2);
        ASSERT_NE(t.lflag() & ECHO, 0u);
        t.type(row.keys);
        EXPECT_EQ(t.next(), row.screen);
        EXPECT_EQ(t.next(), row.password);
        EXPECT_TRUE(t.restored());
        t.type("\r\r\r\r");
        t.next();
        EXPECT_EQ(t.next(), row.left);
    }
}

// Without a terminal the keys come as the input holds them, and its end ends
// the password; the handlers of a host that could not switch a terminal stay.
TEST(CGetPass, InputThatIsNoTerminalEndsWithIt) {
    TempDir dir;
    writeFile(dir / "keys", " ab\bc");
    struct sigaction host {};
    host.sa_handler = [](int) {};
    struct sigaction before {
    }, after{};
    ASSERT_EQ(::sigaction(SIGHUP, &host, &before), 0);
    ASSERT_NE(std::freopen((dir / "keys").c_str(), "r", stdin), nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(CGetPass::getPasswd(), u"ac");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "***\b \b*");
    ::sigaction(SIGHUP, &before, &after);
    EXPECT_EQ(after.sa_handler, host.sa_handler);
}

int g_handled = -1;  // the child tells through it that its handler ran

// A host's own handler, installed without SA_RESTART, may interrupt the read;
// the keys after it count, and the end of the input still ends the password.
TEST(CGetPass, SignalOfTheHostInterruptsTheReadWithoutEndingIt) {
    if (!testEmulator().empty()) GTEST_SKIP() << kEmulatedSyscalls;
    int keys[2], handled[2], result[2];
    ASSERT_EQ(::pipe(keys) | ::pipe(handled) | ::pipe(result), 0);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        g_handled = handled[1];
        struct sigaction host {};
        host.sa_handler = [](int) { (void)!::write(g_handled, "s", 1); };
        ::sigaction(SIGUSR1, &host, nullptr);
        ::dup2(keys[0], 0);
        std::clearerr(stdin);  // an end an earlier test left on it
        ::close(keys[1]);
        const std::string typed = CCConv::toUTF8Str(CGetPass::getPasswd());
        ::_exit(::write(result[1], typed.data(), typed.size()) == ssize_t(typed.size()) ? 0 : 2);
    }
    for (int fd : {keys[0], handled[1], result[1]}) ::close(fd);
    long call = -1;  // what the child waits in: read(2) once it reads the keys
    for (int i = 0; i < 2000 && call != SYS_read; ++i) {
        ::usleep(5000);
        std::ifstream("/proc/" + std::to_string(pid) + "/syscall") >> call;
    }
    EXPECT_EQ(call, SYS_read);
    ::kill(pid, SIGUSR1);
    char c;
    pollfd ran{handled[0], POLLIN, 0};
    EXPECT_TRUE(::poll(&ran, 1, 10000) == 1 && ::read(handled[0], &c, 1) == 1);
    ASSERT_EQ(::write(keys[1], "ab", 2), 2);
    ::close(keys[1]);
    std::string typed;
    char buf[64];
    pollfd in{result[0], POLLIN, 0};
    for (ssize_t n; ::poll(&in, 1, 10000) > 0 && (n = ::read(result[0], buf, sizeof buf)) > 0;)
        typed.append(buf, static_cast<size_t>(n));
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    for (int fd : {handled[0], result[0]}) ::close(fd);
    EXPECT_EQ(typed, "ab");
}

int g_note = -1;  // the child's handlers tell through it how they found the terminal

void noteTerminal() {
    termios now{};
    const char c = ::tcgetattr(0, &now) == 0 && (now.c_lflag & ECHO) != 0 ? 'E' : 'H';
    (void)!::write(g_note, &c, 1);
}

// The host's own handlers for the signals that would end the read run, with
// the terminal as the host left it, whichever form they take; when they
// return, the read goes on hidden.
TEST(CGetPass, HostHandlersRunWithTheTerminalRestoredAndTheReadGoesOn) {
    int note[2];
    ASSERT_EQ(::pipe(note), 0);
    g_note = note[1];
    Terminal t(1, [] {
        struct sigaction plain {
        }, withInfo{};
        plain.sa_handler = [](int) { noteTerminal(); };
        withInfo.sa_sigaction = [](int, siginfo_t*, void*) { noteTerminal(); };
        withInfo.sa_flags = SA_SIGINFO;
        ::sigaction(SIGINT, &plain, nullptr);
        ::sigaction(SIGTERM, &withInfo, nullptr);
        ::sigaction(SIGHUP, &plain, nullptr);
    });
    t.type("a");
    for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(sig);
        ::kill(t.pid(), sig);
        char c = 0;
        pollfd ran{note[0], POLLIN, 0};
        EXPECT_TRUE(::poll(&ran, 1, 10000) == 1 && ::read(note[0], &c, 1) == 1);
        EXPECT_EQ(c, 'E');
        t.waitHidden();
    }
    ASSERT_EQ(::write(t.master(), "b\r", 2), 2);
    EXPECT_EQ(t.next(), "**");
    EXPECT_EQ(t.next(), "ab");
    EXPECT_TRUE(t.restored());
    for (const int fd : note) ::close(fd);
}

}  // namespace
}  // namespace kivreg::test
