#include "http/IPConnection.h"

#include <algorithm>
#include <new>

#include "http/HttpResponse.h"
#include "http/Trace.h"
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

// The reason phrase of a status line, shown in a log: printable 7-bit text of
// a bounded length, whatever the proxy sent.
std::string reasonPhrase(std::u16string_view header) {
    constexpr size_t MAX_REASON = 120;
    std::u16string_view line = header.substr(0, header.find_first_of(u"\r\n"));
    const size_t code = line.find(u' ');
    const size_t reason = code == std::u16string_view::npos ? code : line.find(u' ', code + 1);
    line = reason == std::u16string_view::npos ? std::u16string_view() : line.substr(reason + 1);
    std::string out;
    for (char16_t c : line.substr(0, MAX_REASON))
        out += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
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

int IPConnection::connectTo(const std::string& host, const std::string& service, bool tls,
                            const rt::NetDeadline& deadline) {
    Trace& trace = Trace::instance();
    if (tls && !m_tls) {
        std::string reason;
        if (const int rc = rt::tlsInit(m_tls, reason); rc != rt::NET_OK) {
            trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open TLS set-up failed:", reason);
            return rc;
        }
    }
    const int rc = rt::netOpen(host.c_str(), service.c_str(), deadline.remainingMs(), &m_handle);
    if (rc != rt::NET_OK)
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open failed:", rc, rt::netRcText(rc));
    return rc;
}

int IPConnection::startTls(const std::string& host, const rt::NetDeadline& deadline,
                           std::string early) {
    Trace& trace = Trace::instance();
    std::string reason;
    const int rc = rt::tlsSessionStart(*m_tls, m_handle, host, deadline.remainingMs(), m_session,
                                       reason, std::move(early));
    if (rc != rt::NET_OK) {
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open TLS handshake failed:", rc, reason);
        close();
        return rc;
    }
    if (getKernelTraceLevel() >= 2)
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open TLS session",
                rt::tlsDescribe(*m_session));
    return rt::NET_OK;
}

int IPConnection::open(const char16_t* host, const char16_t* service, bool secure) {
    if (m_handle >= 0) return rt::NET_OK;
    const rt::NetDeadline deadline(m_connectMs);
    const std::string hostName = utf8(host);
    const int rc = connectTo(hostName, utf8(service), secure, deadline);
    if (rc != rt::NET_OK || !secure) return rc;
    return startTls(hostName, deadline, {});
}

int IPConnection::openTunnel(const char16_t* proxy, const char16_t* proxyService,
                             const char16_t* host, const char16_t* service,
                             std::string_view proxyCredentials) {
    if (m_handle >= 0) return rt::NET_OK;
    m_refusal.clear();
    const rt::NetDeadline deadline(m_connectMs);
    int rc = connectTo(utf8(proxy), utf8(proxyService), true, deadline);
    if (rc != rt::NET_OK) return rc;
    const std::string hostName = utf8(host);
    std::string early;
    m_opening = &deadline;
    rc = askForTunnel(hostName, utf8(service), proxyCredentials, early);
    m_opening = nullptr;
    if (rc != rt::NET_OK) {
        close();
        return rc;
    }
    return startTls(hostName, deadline, std::move(early));
}

int IPConnection::askForTunnel(const std::string& host, const std::string& service,
                               std::string_view credentials, std::string& early) {
    Trace& trace = Trace::instance();
    const bool ipv6 = host.find(':') != std::string::npos;
    const std::string target = (ipv6 ? "[" + host + "]" : host) + ":" + service;
    std::string request = "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
    if (!credentials.empty())
        request.append("Proxy-Authorization: Basic ").append(credentials).append("\r\n");
    request += "\r\n";
    int rc = rt::NET_OK;
    write(request.data(), static_cast<int>(request.size()), &rc);
    // The proxy's answer is read like any other: the same bounds apply.
    HttpResponse answer(this);
    if (rc == rt::NET_OK) answer.readHeader(&rc);
    const int status = answer.getStatusCode();
    if (rc == rt::NET_OK && (status < 100 || status > 599)) rc = rt::NET_ERR_PROTOCOL;
    if (rc != rt::NET_OK) {
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::openTunnel no answer from the proxy:", rc,
                rt::netRcText(rc));
        return rc;
    }
    if (status / 100 == 2) {
        early = answer.takeUnread();
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::openTunnel tunnel open to", target);
        return rt::NET_OK;
    }
    m_refusal = std::to_string(status) + " (" + reasonPhrase(answer.getRawHeader()) + ")";
    trace.t(Trace::TRANSPORT_LEVEL,
            "IPConnection::openTunnel proxy refused the tunnel:", m_refusal);
    return rt::NET_ERR_PROXY;
}

int IPConnection::write(const void* data, int size, int* rc) {
    size_t written = 0;
    int code = rt::NET_ERR_INVALID;
    if (m_handle >= 0 && size >= 0) {
        const auto n = static_cast<size_t>(size);
        code = m_session ? rt::tlsWrite(*m_session, data, n, m_sendMs, &written)
                         : rt::netWrite(m_handle, data, n, waitMs(m_sendMs), &written);
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
                         : rt::netRead(m_handle, data, n, waitMs(m_readMs), &got);
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
