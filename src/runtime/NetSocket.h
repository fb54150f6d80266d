#pragma once
// Plain TCP beneath the HTTP transport: open by host name and service with a
// connect timeout, timed reads and writes, close, and the local host name for
// the trace. Every function returns a code from runtime/NetRc.h.
//
// Timeouts are in milliseconds; a negative value waits without limit. Sockets
// are non-blocking underneath, so a timeout bounds each call as a whole, and
// writes never raise SIGPIPE: a peer that went away gives NET_ERR_CLOSED.

#include <cstddef>
#include <string>

#include "runtime/NetRc.h"

namespace kivreg {
struct Status;
}

namespace kivreg::rt {

// Each failure also fills the Status when one is given: open says what failed
// and where (resolve or connect, host and port) and why in the system's words;
// read and write give the code and the reason only, as they do not know the
// peer.

// Resolves host (IPv4 and IPv6) and connects to each address in turn until one
// answers; the whole attempt, name lookup included, is bounded by timeoutMs. On success *handle
// holds the socket, otherwise -1.
int netOpen(const char* host, const char* service, int timeoutMs, int* handle,
            Status* status = nullptr);

// Both take an open socket and a buffer of `size` bytes.
// Writes all `size` bytes unless time runs out or the connection fails;
// *written holds what went out either way.
int netWrite(int handle, const void* data, size_t size, int timeoutMs, size_t* written,
             Status* status = nullptr);

// Reads what is available, up to `size` bytes, waiting at most timeoutMs for
// the first byte. An orderly close by the peer is NET_ERR_CLOSED with 0 bytes.
int netRead(int handle, void* data, size_t size, int timeoutMs, size_t* got,
            Status* status = nullptr);

// Waits until the socket is readable (forWrite false) or writable; used by the
// TLS layer when a record needs more bytes. NET_ERR_TIMEOUT when time runs out.
int netWait(int handle, bool forWrite, int timeoutMs);

int netClose(int handle);

// Fills the Status (when given) with a failed read's or write's code and
// reason: the timeout for NET_ERR_TIMEOUT, else `reason`, or that the
// connection was closed when it is empty. Returns rc.
int ioFailure(Status* status, int rc, int timeoutMs, std::string reason);

// The local host name.
int netMyHostName(std::string& name);

// Milliseconds left until a deadline taken from a monotonic clock; -1 for a
// deadline of "no limit" and 0 once it has passed.
class NetDeadline {
public:
    explicit NetDeadline(int timeoutMs);
    int remainingMs() const;

private:
    bool m_unlimited;
    long long m_endNs = 0;
};

}  // namespace kivreg::rt
