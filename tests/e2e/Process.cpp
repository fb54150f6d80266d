#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

using Clock = std::chrono::steady_clock;

// Standard input from memory: the whole text is there before the child starts.
int inputFd(const std::string& input) {
    const int fd = memfd_create("stdin", MFD_CLOEXEC);
    if (fd < 0 || write(fd, input.data(), input.size()) != static_cast<ssize_t>(input.size()) ||
        lseek(fd, 0, SEEK_SET) != 0)
        throw std::runtime_error("memfd");
    return fd;
}

std::vector<char*> pointers(const std::vector<std::string>& words) {
    std::vector<char*> args;
    for (const auto& w : words) args.push_back(const_cast<char*>(w.c_str()));
    args.push_back(nullptr);
    return args;
}

[[noreturn]] void exec(const std::vector<std::string>& argv, const RunOptions& options) {
    for (const auto& [k, v] : options.env) setenv(k.c_str(), v.c_str(), 1);
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
    execv(argv[0].c_str(), pointers(argv).data());
    // A program built for another architecture (a cross build's kivreg or C
    // host) runs through the emulator named in KIVREG_TEST_EMULATOR.
    if (errno == ENOEXEC && !testEmulator().empty()) {
        const std::vector<std::string> words = emulated(argv);
        execvp(words[0].c_str(), pointers(words).data());
    }
    _exit(127);
}

}  // namespace

std::vector<std::string> emulated(std::vector<std::string> argv) {
    std::vector<std::string> words;
    std::istringstream in(testEmulator());
    for (std::string w; in >> w;) words.push_back(w);
    argv.insert(argv.begin(), words.begin(), words.end());
    return argv;
}

Child::Child(const std::vector<std::string>& argv, const RunOptions& options) {
    if (options.terminal) {
        m_pid = forkpty(&m_fd, nullptr, nullptr, nullptr);
        if (m_pid == 0) exec(argv, options);
    } else {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        const int in = inputFd(options.input);
        m_pid = fork();
        if (m_pid == 0) {
            dup2(in, 0);
            dup2(out[1], 1);
            dup2(out[1], 2);
            exec(argv, options);
        }
        close(in);
        close(out[1]);
        m_fd = out[0];
    }
    if (m_pid < 0) throw std::runtime_error("fork");
}

Child::~Child() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_fd >= 0) close(m_fd);
}

bool Child::readMore(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd pfd{m_fd, POLLIN, 0};
    if (m_fd < 0 || left.count() <= 0 || poll(&pfd, 1, static_cast<int>(left.count())) <= 0)
        return false;
    char buf[65536];
    const ssize_t n = read(m_fd, buf, sizeof buf);
    if (n <= 0) return false;  // the end (a pseudo-terminal reports it as EIO)
    m_out.append(buf, static_cast<size_t>(n));
    return true;
}

bool Child::expect(const std::string& text) {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    for (;;) {
        const size_t at = m_out.find(text, m_seen);
        if (at != std::string::npos) {
            m_seen = at + text.size();
            return true;
        }
        if (!readMore(deadline)) return false;
    }
}

std::string Child::lineAfter(const std::string& text) {
    if (!expect(text)) return {};
    const size_t start = m_seen;
    return expect("\n") ? m_out.substr(start, m_seen - 1 - start) : std::string();
}

void Child::type(const std::string& keys) {
    if (write(m_fd, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size()))
        throw std::runtime_error("cannot type into the terminal");
}

bool Child::echoOff() {
    for (int i = 0; i < 2000; ++i) {
        termios mode{};
        if (tcgetattr(m_fd, &mode) == 0 && !(mode.c_lflag & ECHO)) return true;
        usleep(5000);
    }
    return false;
}

long Child::sleepsInRead(long sleeps) const {
    const std::string proc = "/proc/" + std::to_string(m_pid);
    for (int i = 0; i < 4000; ++i) {
        long call = -1;
        std::ifstream(proc + "/syscall") >> call;
        std::ifstream status(proc + "/status");
        std::string line;
        char state = 0;
        long count = -1;
        while (std::getline(status, line)) {
            if (line.rfind("State:", 0) == 0) state = line[line.find_first_not_of(" \t", 6)];
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) count = std::stol(line.substr(24));
        }
        if (call == SYS_read && state == 'S' && count > sleeps) return count;
        usleep(5000);
    }
    return -1;
}

int Child::wait(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (readMore(deadline)) {
    }
    int status = 0;
    pid_t r;
    while ((r = waitpid(m_pid, &status, WNOHANG)) == 0 && Clock::now() < deadline) usleep(2000);
    if (r != m_pid) return -1;  // the destructor kills it
    m_pid = -1;
    m_signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Child::terminalMode(termios& mode) const {
    return tcgetattr(m_fd, &mode) == 0;
}

int Child::stop() {
    if (m_pid > 0) kill(m_pid, SIGTERM);
    return wait(std::chrono::seconds(10));
}

RunResult run(const std::vector<std::string>& argv, const RunOptions& options) {
    Child child(argv, options);
    const int code = child.wait(std::chrono::seconds(60));
    return {code, child.output()};
}

}  // namespace kivreg::test
