#include "http/IPConnection.h"

#include <algorithm>
#include <new>

#include "http/Trace.h"
#include "runtime/NetSocket.h"
#include "runtime/textconv.h"

namespace kivreg {

namespace {
constexpr int MIN_TIMEOUT_MS = 60000;
constexpr int MAX_TIMEOUT_MS = 900000;

std::string utf8(const char16_t* text) {
    std::string out;
    if (text != nullptr) rt::utf16ToUtf8Lenient(text, out);
    return out;
}

int clampTimeout(int seconds, int& storedMs) {
    if (seconds < 0) {
        storedMs = -1;
        return MIN_TIMEOUT_MS;
    }
    if (seconds > MAX_TIMEOUT_MS / 1000) {
        storedMs = MAX_TIMEOUT_MS;
        return MIN_TIMEOUT_MS;
    }
    storedMs = std::max(seconds * 1000, MIN_TIMEOUT_MS);
    return storedMs;
}
}  // namespace

int createIIPConnection(std::unique_ptr<IIPConnection>& out) {
    out.reset(new (std::nothrow) IPConnection);
    return out ? 0 : -1;
}

int IPConnection::setTimeOutConn(int seconds) {
    return clampTimeout(seconds, m_connectMs);
}
int IPConnection::setTimeOutSend(int seconds) {
    return clampTimeout(seconds, m_sendMs);
}
int IPConnection::setTimeOutRead(int seconds) {
    return clampTimeout(seconds, m_readMs);
}

int IPConnection::open(const char16_t* host, const char16_t* service, bool secure) {
    if (m_handle >= 0) return rt::NET_OK;
    Trace& trace = Trace::instance();
    std::string reason;
    if (secure && !m_tls) {
        if (const int rc = rt::tlsInit(m_tls, reason); rc != rt::NET_OK) {
            trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open TLS set-up failed:", reason);
            return rc;
        }
    }
    const std::string hostName = utf8(host);
    int rc = rt::netOpen(hostName.c_str(), utf8(service).c_str(), m_connectMs, &m_handle);
    if (rc != rt::NET_OK) {
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open failed:", rc, rt::netRcText(rc));
        return rc;
    }
    if (secure) {
        rc = rt::tlsSessionStart(*m_tls, m_handle, hostName, m_connectMs, m_session, reason);
        if (rc != rt::NET_OK) {
            trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open TLS handshake failed:", rc, reason);
            rt::netClose(m_handle);
            m_handle = -1;
            return rc;
        }
        if (getKernelTraceLevel() >= 2)
            trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open TLS session",
                    rt::tlsDescribe(*m_session));
    }
    return rt::NET_OK;
}

int IPConnection::write(const void* data, int size, int* rc) {
    size_t written = 0;
    int code = rt::NET_ERR_INVALID;
    if (m_handle >= 0 && size >= 0) {
        const auto n = static_cast<size_t>(size);
        code = m_session ? rt::tlsWrite(*m_session, data, n, m_sendMs, &written)
                         : rt::netWrite(m_handle, data, n, m_sendMs, &written);
        if (code != rt::NET_OK && m_session && !rt::tlsLastReason(*m_session).empty())
            Trace::instance().t(Trace::TRANSPORT_LEVEL,
                                "IPConnection::write TLS:", rt::tlsLastReason(*m_session));
    }
    if (rc != nullptr) *rc = code;
    return static_cast<int>(written);
}

int IPConnection::read(void* data, int size, int* rc) {
    size_t got = 0;
    int code = rt::NET_ERR_INVALID;
    if (m_handle >= 0 && size >= 0) {
        const auto n = static_cast<size_t>(size);
        code = m_session ? rt::tlsRead(*m_session, data, n, m_readMs, &got)
                         : rt::netRead(m_handle, data, n, m_readMs, &got);
        if (code != rt::NET_OK && code != rt::NET_ERR_CLOSED && m_session)
            Trace::instance().t(Trace::TRANSPORT_LEVEL,
                                "IPConnection::read TLS:", rt::tlsLastReason(*m_session));
    }
    if (rc != nullptr) *rc = code;
    return static_cast<int>(got);
}

int IPConnection::skip(int size) {
    char buf[16384];
    int total = 0;
    while (total < size) {
        int rc = 0;
        const int n = read(buf, std::min<int>(size - total, sizeof buf), &rc);
        total += n;
        if (rc != rt::NET_OK || n <= 0) break;
    }
    return total;
}

int IPConnection::close() {
    if (m_handle < 0) return 0;
    m_session.reset();  // close_notify goes out before the socket closes
    rt::netClose(m_handle);
    m_handle = -1;
    return 1;
}

}  // namespace kivreg
