#include "runtime/NetSocket.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "support/Status.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kivreg::rt {

const char* netRcText(int rc) noexcept {
    switch (rc) {
        case NET_OK:
            return "ok";
        case NET_ERR_RESOLVE:
            return "host name not resolved";
        case NET_ERR_REFUSED:
            return "connection refused";
        case NET_ERR_TIMEOUT:
            return "timed out";
        case NET_ERR_CLOSED:
            return "connection closed by peer";
        case NET_ERR_UNREACHABLE:
            return "host unreachable";
        case NET_ERR_IO:
            return "socket error";
        case NET_ERR_INVALID:
            return "invalid handle or argument";
        case NET_ERR_TLS:
            return "TLS failure";
        case NET_ERR_TLS_VERIFY:
            return "server certificate not accepted";
        case NET_ERR_PROTOCOL:
            return "malformed answer";
        case NET_ERR_LIMIT:
            return "answer too large";
        case NET_ERR_PROXY:
            return "proxy refused the tunnel";
        default:
            return "unknown code";
    }
}

namespace {

long long nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int rcFromErrno(int err) {
    switch (err) {
        case ECONNREFUSED:
            return NET_ERR_REFUSED;
        case ETIMEDOUT:
            return NET_ERR_TIMEOUT;
        case EPIPE:
        case ECONNRESET:
        case ECONNABORTED:
        case ENOTCONN:
            return NET_ERR_CLOSED;
        case ENETUNREACH:
        case EHOSTUNREACH:
        case ENETDOWN:
        case EHOSTDOWN:
            return NET_ERR_UNREACHABLE;
        case EBADF:
        case ENOTSOCK:
        case EINVAL:
            return NET_ERR_INVALID;
        default:
            return NET_ERR_IO;
    }
}

// Waits for one event on the socket within the deadline.
int waitFor(int fd, short events, const NetDeadline& deadline) {
    for (;;) {
        pollfd p{fd, events, 0};
        const int n = poll(&p, 1, deadline.remainingMs());
        if (n > 0) return NET_OK;  // readiness or an error: the next call tells which
        if (n == 0) return NET_ERR_TIMEOUT;
        if (errno != EINTR) return rcFromErrno(errno);
    }
}

// Sets the reason from errno's value and returns its code.
int failed(int err, std::string& reason) {
    reason = std::strerror(err);
    return rcFromErrno(err);
}

int connectOne(const addrinfo& ai, const NetDeadline& deadline, int* handle, std::string& reason) {
    const int fd =
        socket(ai.ai_family, ai.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai.ai_protocol);
    if (fd < 0) return failed(errno, reason);
    int rc = NET_OK;
    if (connect(fd, ai.ai_addr, ai.ai_addrlen) != 0) {
        if (errno != EINPROGRESS && errno != EINTR) {
            rc = failed(errno, reason);
        } else if ((rc = waitFor(fd, POLLOUT, deadline)) == NET_OK) {
            int err = 0;
            socklen_t len = sizeof err;
            if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
            if (err != 0) rc = failed(err, reason);
        }
    }
    if (rc != NET_OK) {
        ::close(fd);
        return rc;
    }
    // The request header is small and goes out ahead of the body; it should not
    // wait for an acknowledgement.
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    *handle = fd;
    return NET_OK;
}

struct AddrInfoFree {
    void operator()(addrinfo* ai) const { freeaddrinfo(ai); }
};
using AddrInfoPtr = std::unique_ptr<addrinfo, AddrInfoFree>;

int lookup(const char* host, const char* service, int flags, AddrInfoPtr& out,
           std::string& reason) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG | flags;
    addrinfo* list = nullptr;
    const int g = getaddrinfo(host, service, &hints, &list);
    out.reset(list);
    if (g == 0) return NET_OK;
    if (g == EAI_SYSTEM) return failed(errno, reason);
    reason = gai_strerror(g);
    return NET_ERR_RESOLVE;
}

// A name lookup that outlives the caller's wait: the helper thread and the
// caller share it, and whoever lets go last frees it.
struct PendingLookup {
    std::string host, service;
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
    int rc = NET_ERR_RESOLVE;
    std::string reason;
    AddrInfoPtr list;
};

// getaddrinfo itself cannot be interrupted, so a bounded lookup runs on a
// helper thread and is abandoned (left to finish on its own) at the deadline.
// Address literals need no lookup and are converted at once.
int resolve(const char* host, const char* service, const NetDeadline& deadline, AddrInfoPtr& out,
            std::string& reason) {
    if (lookup(host, service, AI_NUMERICHOST, out, reason) == NET_OK) return NET_OK;
    if (deadline.remainingMs() < 0) return lookup(host, service, 0, out, reason);
    auto job = std::make_shared<PendingLookup>();
    job->host = host;
    job->service = service;
    try {
        std::thread([job] {
            AddrInfoPtr list;
            std::string why;
            const int rc = lookup(job->host.c_str(), job->service.c_str(), 0, list, why);
            const std::lock_guard<std::mutex> hold(job->lock);
            job->rc = rc;
            job->reason = std::move(why);
            job->list = std::move(list);
            job->done = true;
            job->finished.notify_one();
        }).detach();
    } catch (const std::system_error& e) {
        reason = e.what();
        return NET_ERR_IO;
    }
    std::unique_lock<std::mutex> hold(job->lock);
    if (!job->finished.wait_for(hold, std::chrono::milliseconds(deadline.remainingMs()),
                                [&] { return job->done; }))
        return NET_ERR_TIMEOUT;
    out = std::move(job->list);
    reason = job->reason;
    return job->rc;
}

}  // namespace

NetDeadline::NetDeadline(int timeoutMs) : m_unlimited(timeoutMs < 0) {
    if (!m_unlimited) m_endNs = nowNs() + static_cast<long long>(timeoutMs) * 1000000LL;
}

int NetDeadline::remainingMs() const {
    if (m_unlimited) return -1;
    const long long left = m_endNs - nowNs();
    if (left <= 0) return 0;
    const long long ms = (left + 999999LL) / 1000000LL;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

int netOpen(const char* host, const char* service, int timeoutMs, int* handle, Status* status) {
    if (handle == nullptr) return NET_ERR_INVALID;
    *handle = -1;
    if (host == nullptr || *host == '\0' || service == nullptr || *service == '\0')
        return NET_ERR_INVALID;
    const NetDeadline deadline(timeoutMs);
    AddrInfoPtr list;
    std::string reason;
    int rc = resolve(host, service, deadline, list, reason);
    Status failure =
        Status::failed(rc, Status::Step::Resolve, "Could not resolve host", host, reason);
    if (rc == NET_OK) {
        failure = Status::failed(NET_ERR_RESOLVE, Status::Step::Connect, "Could not connect to",
                                 hostPort(host, service, " port "), "no address to connect to");
        for (const addrinfo* ai = list.get(); ai != nullptr; ai = ai->ai_next) {
            failure.code = rc = connectOne(*ai, deadline, handle, failure.reason);
            if (rc == NET_OK || rc == NET_ERR_TIMEOUT) break;
        }
    }
    if (rc == NET_ERR_TIMEOUT) {
        failure.what =
            "Timed out after " + secondsText(timeoutMs) +
            (failure.step == Status::Step::Resolve ? " resolving host" : " connecting to");
        failure.reason.clear();
    }
    if (rc != NET_OK && status != nullptr) *status = std::move(failure);
    return rc;
}

int ioFailure(Status* status, int rc, int timeoutMs, std::string reason) {
    if (status == nullptr) return rc;
    status->code = rc;
    if (rc == NET_ERR_TIMEOUT)
        status->reason = "timed out after " + secondsText(timeoutMs);
    else if (reason.empty())
        status->reason = "the connection was closed";
    else
        status->reason = std::move(reason);
    return rc;
}

namespace {
int ioFailed(Status* status, int rc, int timeoutMs, int err) {
    return ioFailure(status, rc, timeoutMs, err == 0 ? std::string() : std::strerror(err));
}
}  // namespace

int netWrite(int handle, const void* data, size_t size, int timeoutMs, size_t* written,
             Status* status) {
    size_t done = 0;
    int rc = NET_OK;
    const NetDeadline deadline(timeoutMs);
    const auto* p = static_cast<const char*>(data);
    while (rc == NET_OK && done < size) {
        // One call hands the kernel as much as it will take; MSG_NOSIGNAL turns
        // a vanished peer into EPIPE instead of a signal.
        const ssize_t n = send(handle, p + done, size - done, MSG_NOSIGNAL);
        if (n >= 0) {
            done += static_cast<size_t>(n);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            rc = waitFor(handle, POLLOUT, deadline);
        } else if (errno != EINTR) {
            rc = rcFromErrno(errno);
        }
    }
    if (written != nullptr) *written = done;
    return rc == NET_OK ? rc : ioFailed(status, rc, timeoutMs, errno);
}

int netRead(int handle, void* data, size_t size, int timeoutMs, size_t* got, Status* status) {
    if (got != nullptr) *got = 0;
    if (size == 0) return NET_OK;
    const NetDeadline deadline(timeoutMs);
    for (;;) {
        const ssize_t n = recv(handle, data, size, 0);
        if (n > 0) {
            if (got != nullptr) *got = static_cast<size_t>(n);
            return NET_OK;
        }
        if (n == 0) return ioFailed(status, NET_ERR_CLOSED, timeoutMs, 0);
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (const int rc = waitFor(handle, POLLIN, deadline); rc != NET_OK)
                return ioFailed(status, rc, timeoutMs, errno);
        } else if (errno != EINTR) {
            return ioFailed(status, rcFromErrno(errno), timeoutMs, errno);
        }
    }
}

int netWait(int handle, bool forWrite, int timeoutMs) {
    if (handle < 0) return NET_ERR_INVALID;
    return waitFor(handle, forWrite ? POLLOUT : POLLIN, NetDeadline(timeoutMs));
}

int netClose(int handle) {
    if (handle < 0) return NET_ERR_INVALID;
    return ::close(handle) == 0 ? NET_OK : rcFromErrno(errno);
}

int netMyHostName(std::string& name) {
    char buf[256] = {};
    if (gethostname(buf, sizeof buf - 1) != 0) return rcFromErrno(errno);
    name = buf;
    return NET_OK;
}

}  // namespace kivreg::rt
