#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "secstore/CGetPass.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using namespace std::chrono_literals;
constexpr auto TIMEOUT = 10s;

enum class Read { Hidden, Echo, RawModeSwitch };

// Runs a sequence of reads in a child whose standard input and output are
// the slave side of a pseudo-terminal (or whose input is a pipe), and plays
// the keyboard and the screen from the master side. Each read starts when
// begin() says so; its result comes back through a pipe of its own. Every
// wait is bounded; a hanging child is killed.
class Keyboard {
public:
    Keyboard(std::vector<Read> reads, bool pipedInput = false) {
        if (::openpty(&m_master, &m_slave, nullptr, nullptr, nullptr) != 0)
            throw std::runtime_error("openpty");
        // Without the carriage-return translation a typed "\r" arrives as 13.
        termios t;
        ::tcgetattr(m_slave, &t);
        t.c_iflag &= ~static_cast<tcflag_t>(ICRNL);
        ::tcsetattr(m_slave, TCSANOW, &t);
        m_before = t;
        int results[2];
        int gate[2];
        int input[2] = {-1, -1};
        if (::pipe(results) != 0 || ::pipe(gate) != 0 || (pipedInput && ::pipe(input) != 0))
            throw std::runtime_error("pipe");
        std::fflush(nullptr);
        m_pid = ::fork();
        if (m_pid < 0) throw std::runtime_error("fork");
        if (m_pid == 0) {
            ::close(m_master);
            ::close(results[0]);
            ::close(gate[1]);
            ::setsid();
            ::dup2(pipedInput ? input[0] : m_slave, 0);
            ::dup2(m_slave, 1);
            if (pipedInput) ::close(input[1]);
            for (Read r : reads) {
                char go;
                if (::read(gate[0], &go, 1) != 1) ::_exit(3);
                std::string answer;
                if (r == Read::RawModeSwitch) {
                    answer = CGetPass::setTermToRawMode() ? "raw" : "unchanged";
                    CGetPass::setTermToOrgMode();
                } else {
                    answer = test::u8(r == Read::Hidden ? CGetPass::getPasswd()
                                                        : CGetPass::getPasswdEcho());
                }
                const uint32_t size = static_cast<uint32_t>(answer.size());
                if (::write(results[1], &size, sizeof size) != sizeof size ||
                    ::write(results[1], answer.data(), size) != static_cast<ssize_t>(size))
                    ::_exit(2);
            }
            ::_exit(0);
        }
        ::close(results[1]);
        ::close(gate[0]);
        m_results = results[0];
        m_gate = gate[1];
        if (pipedInput) {
            ::close(input[0]);
            m_input = input[1];
        }
    }

    ~Keyboard() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        for (int fd : {m_master, m_slave, m_results, m_input, m_gate})
            if (fd >= 0) ::close(fd);
    }

    // Lets the child start its next read.
    void begin() const { ASSERT_EQ(::write(m_gate, "g", 1), 1); }

    // The child has switched the terminal off canonical mode.
    bool waitForRawMode() const {
        const auto deadline = std::chrono::steady_clock::now() + TIMEOUT;
        while (std::chrono::steady_clock::now() < deadline) {
            if ((attributes().c_lflag & ICANON) == 0) return true;
            std::this_thread::sleep_for(2ms);
        }
        return false;
    }

    void type(const std::string& keys) const {
        const int fd = m_input >= 0 ? m_input : m_master;
        ASSERT_EQ(::write(fd, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    // The next returned text, or nothing when the child gave none in time.
    std::optional<std::string> result() {
        uint32_t size = 0;
        if (!readExactly(&size, sizeof size)) return std::nullopt;
        std::string text(size, '\0');
        if (size > 0 && !readExactly(text.data(), size)) return std::nullopt;
        return text;
    }

    // What the child has written to the screen so far. Its output precedes
    // its result, so after result() everything it showed is already here.
    std::string screen() const {
        std::string out;
        char chunk[512];
        pollfd p{m_master, POLLIN, 0};
        while (::poll(&p, 1, 50) > 0 && (p.revents & POLLIN)) {
            const ssize_t n = ::read(m_master, chunk, sizeof chunk);
            if (n <= 0) break;
            out.append(chunk, static_cast<size_t>(n));
        }
        return out;
    }

    termios attributes() const {
        termios t{};
        ::tcgetattr(m_slave, &t);
        return t;
    }
    const termios& before() const { return m_before; }

    bool exitedCleanly() {
        const auto deadline = std::chrono::steady_clock::now() + TIMEOUT;
        int status = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            const pid_t r = ::waitpid(m_pid, &status, WNOHANG);
            if (r == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) && WEXITSTATUS(status) == 0;
            }
            std::this_thread::sleep_for(2ms);
        }
        return false;
    }

private:
    bool readExactly(void* buffer, size_t size) {
        char* p = static_cast<char*>(buffer);
        const auto deadline = std::chrono::steady_clock::now() + TIMEOUT;
        while (size > 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd fd{m_results, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&fd, 1, static_cast<int>(left.count())) <= 0)
                return false;
            const ssize_t n = ::read(m_results, p, size);
            if (n <= 0) return false;
            p += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    int m_master = -1;
    int m_slave = -1;
    int m_results = -1;
    int m_input = -1;
    int m_gate = -1;
    pid_t m_pid = -1;
    termios m_before{};
};

void expectRestored(const Keyboard& kb) {
    const termios after = kb.attributes();
    EXPECT_NE(after.c_lflag & ECHO, 0u);
    EXPECT_NE(after.c_lflag & ICANON, 0u);
    EXPECT_EQ(after.c_lflag, kb.before().c_lflag);
    EXPECT_EQ(after.c_cc[VMIN], kb.before().c_cc[VMIN]);
    EXPECT_EQ(after.c_cc[VTIME], kb.before().c_cc[VTIME]);
}

TEST(CGetPass, HiddenInputThroughATerminal) {
    struct Row {
        const char* name;
        std::string keys;
        std::string password;
        std::string screen;
    };
    const Row rows[] = {
        {"backspace erases one star", "ab\bc\r", "ac", "**\b \b*"},
        {"backspace on nothing", "\b\bx\n", "x", "*"},
        {"three empty Enters are ignored", "\r\n\rx\r", "x", "*"},
        {"the fourth empty Enter ends", "\r\r\n\r", "", ""},
        {"blanks around are trimmed", " secret \r", "secret", "********"},
        {"blanks only", "   \n", "", "***"},
        {"form feed is ignored", "a\fb\r", "ab", "**"},
        {"delete is a character",
         "a\x7f"
         "b\r",
         "a\x7f"
         "b",
         "***"},
        {"one star per character", "\xC3\xA4\xE2\x82\xAC\r", "\xC3\xA4\xE2\x82\xAC", "**"},
        {"backspace erases a whole pair", "a\xF0\x9F\x98\x80\bb\r", "ab", "**\b \b*"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Keyboard kb({Read::Hidden});
        EXPECT_NE(kb.before().c_lflag & ECHO, 0u);
        kb.begin();
        ASSERT_TRUE(kb.waitForRawMode());
        EXPECT_EQ(kb.attributes().c_lflag & ECHO, 0u);
        kb.type(row.keys);
        EXPECT_EQ(kb.result(), row.password);
        EXPECT_EQ(kb.screen(), row.screen);
        expectRestored(kb);
        EXPECT_TRUE(kb.exitedCleanly());
    }
}

TEST(CGetPass, HundredCharactersEndTheInputAndTheNextKeyWaits) {
    std::string hundred;
    for (int i = 0; i < CGetPass::MAX_INPUT_LEN; ++i)
        hundred.push_back(static_cast<char>('!' + i % 90));
    Keyboard kb({Read::Hidden, Read::Hidden});
    kb.begin();
    ASSERT_TRUE(kb.waitForRawMode());
    kb.type(hundred + "Z");
    EXPECT_EQ(kb.result(), hundred);
    EXPECT_EQ(kb.screen(), std::string(100, '*'));
    expectRestored(kb);

    kb.begin();
    ASSERT_TRUE(kb.waitForRawMode());
    kb.type("\r");
    EXPECT_EQ(kb.result(), "Z");
    EXPECT_EQ(kb.screen(), "*");
    expectRestored(kb);
    EXPECT_TRUE(kb.exitedCleanly());
}

TEST(CGetPass, VisibleLineIsCutAt99AndTrimmed) {
    const std::string longLine(120, 'q');
    Keyboard kb({Read::Echo, Read::Echo, Read::Echo});
    kb.begin();
    kb.type("  visible line  \n");
    EXPECT_EQ(kb.result(), "visible line");
    EXPECT_NE(kb.screen().find("visible line"), std::string::npos);  // the terminal echoes it
    kb.begin();
    kb.type(longLine + "\n");
    EXPECT_EQ(kb.result(), std::string(99, 'q'));
    kb.begin();
    EXPECT_EQ(kb.result(), std::string(21, 'q'));
    EXPECT_TRUE(kb.exitedCleanly());
}

// Input that is no terminal is read as it comes. Visible and hidden reads
// share one stdio stream: a line read ahead with the first answer is not lost
// to the password.
TEST(CGetPass, PipedInputIsSharedByVisibleAndHiddenReads) {
    Keyboard kb({Read::RawModeSwitch, Read::Echo, Read::Hidden, Read::Echo}, true);
    for (int i = 0; i < 4; ++i) kb.begin();
    kb.type("admin\npw\b\bsecret \nregistry.example.org\n");
    EXPECT_EQ(kb.result(), "unchanged");
    EXPECT_EQ(kb.result(), "admin");
    EXPECT_EQ(kb.result(), "secret");
    EXPECT_EQ(kb.result(), "registry.example.org");
    EXPECT_EQ(kb.screen(), "**\b \b\b \b*******");
    EXPECT_TRUE(kb.exitedCleanly());
}

}  // namespace
}  // namespace kivreg
