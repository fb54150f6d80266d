#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kivreg::test {
namespace {

using Clock = std::chrono::steady_clock;

// Forks and execs; the child's stdout and stderr go to outFd, stdin from inFd.
pid_t spawn(const std::vector<std::string>& argv, const RunOptions& options, int inFd, int outFd) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(inFd, 0);
        dup2(outFd, 1);
        dup2(outFd, 2);
        for (const auto& [k, v] : options.env) setenv(k.c_str(), v.c_str(), 1);
        if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

// Waits for pid until the deadline; kills it when the deadline passes.
int reap(pid_t pid, Clock::time_point deadline, bool& timedOut) {
    int status = 0;
    for (;;) {
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) break;
        if (r < 0 && errno != EINTR) return -1;
        if (Clock::now() > deadline) {
            timedOut = true;
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        usleep(2000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

RunResult run(const std::vector<std::string>& argv, const RunOptions& options) {
    int out[2], in[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    const pid_t pid = spawn(argv, options, in[0], out[1]);
    close(out[1]);
    close(in[0]);
    fcntl(in[1], F_SETFL, O_NONBLOCK);
    signal(SIGPIPE, SIG_IGN);  // the child may close its input early

    RunResult result;
    const auto deadline = Clock::now() + options.timeout;
    size_t written = 0;
    int inFd = in[1];
    if (options.input.empty()) {
        close(inFd);
        inFd = -1;
    }
    for (;;) {
        pollfd fds[2] = {{out[0], POLLIN, 0}, {inFd, POLLOUT, 0}};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) break;
        if (poll(fds, inFd >= 0 ? 2 : 1, static_cast<int>(left.count())) <= 0) continue;
        if (inFd >= 0 && (fds[1].revents & (POLLOUT | POLLERR | POLLHUP))) {
            const ssize_t n =
                write(inFd, options.input.data() + written, options.input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n < 0 || written == options.input.size()) {
                close(inFd);
                inFd = -1;
            }
        }
        if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
            char buf[65536];
            const ssize_t n = read(out[0], buf, sizeof buf);
            if (n <= 0) break;
            result.out.append(buf, static_cast<size_t>(n));
        }
    }
    if (inFd >= 0) close(inFd);
    close(out[0]);
    result.exitCode = reap(pid, deadline, result.timedOut);
    return result;
}

Child::Child(const std::vector<std::string>& argv, const RunOptions& options) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    const int devnull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    m_pid = spawn(argv, options, devnull, out[1]);
    close(devnull);
    close(out[1]);
    m_fd = out[0];
}

Child::~Child() {
    stop();
}

std::string Child::waitForLine(const std::string& marker, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        // Look at complete lines not seen yet.
        for (size_t nl; (nl = m_out.find('\n', m_scanned)) != std::string::npos;
             m_scanned = nl + 1) {
            const std::string line = m_out.substr(m_scanned, nl - m_scanned);
            if (line.find(marker) != std::string::npos) {
                m_scanned = nl + 1;
                return line;
            }
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || m_fd < 0) return {};
        pollfd pfd{m_fd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
        char buf[4096];
        const ssize_t n = read(m_fd, buf, sizeof buf);
        if (n <= 0) {
            close(m_fd);
            m_fd = -1;
            return {};
        }
        m_out.append(buf, static_cast<size_t>(n));
    }
}

int Child::stop() {
    if (m_pid <= 0) return -1;
    kill(m_pid, SIGTERM);
    bool timedOut = false;
    const int code = reap(m_pid, Clock::now() + std::chrono::seconds(10), timedOut);
    m_pid = -1;
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
    return code;
}

}  // namespace kivreg::test
