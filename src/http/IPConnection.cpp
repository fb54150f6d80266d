#include "http/IPConnection.h"

#include <algorithm>
#include <new>

#include "http/HttpResponse.h"
#include "http/Trace.h"
#include "runtime/textconv.h"
#include "support/Status.h"

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

int IPConnection::connectTo(const std::string& host, const std::string& service, bool tls,
                            const rt::NetDeadline& deadline) {
    Trace& trace = Trace::instance();
    m_status = {};
    m_peer = hostPort(host, service, " port ");
    if (tls && !m_tls) {
        if (const int rc = rt::tlsInit(m_tls, m_credentialDir, m_status); rc != rt::NET_OK) {
            trace.t(Trace::TRANSPORT_LEVEL,
                    "IPConnection::open TLS set-up failed:", m_status.message());
            return rc;
        }
    }
    const int rc =
        rt::netOpen(host.c_str(), service.c_str(), deadline.remainingMs(), &m_handle, &m_status);
    if (rc != rt::NET_OK)
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open failed:", rc, rt::netRcText(rc));
    return rc;
}

int IPConnection::startTls(const std::string& host, const rt::NetDeadline& deadline,
                           std::string early) {
    Trace& trace = Trace::instance();
    const int rc = rt::tlsSessionStart(*m_tls, m_handle, host, deadline.remainingMs(), m_session,
                                       m_status, std::move(early));
    if (rc != rt::NET_OK) {
        m_status.context = m_peer;
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::open TLS handshake failed:", rc,
                m_status.message());
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
    const rt::NetDeadline deadline(m_connectMs);
    int rc = connectTo(utf8(proxy), utf8(proxyService), true, deadline);
    if (rc != rt::NET_OK) return rc;
    const std::string hostName = utf8(host);
    const std::string serviceName = utf8(service);
    std::string early;
    m_opening = &deadline;
    rc = askForTunnel(hostName, serviceName, proxyCredentials, early);
    m_opening = nullptr;
    if (rc != rt::NET_OK) {
        m_status.step = Status::Step::Proxy;
        close();
        return rc;
    }
    m_peer = hostPort(hostName, serviceName, " port ");
    return startTls(hostName, deadline, std::move(early));
}

int IPConnection::askForTunnel(const std::string& host, const std::string& service,
                               std::string_view credentials, std::string& early) {
    Trace& trace = Trace::instance();
    const std::string target = hostPort(host, service);
    std::string request = "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
    if (!credentials.empty())
        request.append("Proxy-Authorization: Basic ").append(credentials).append("\r\n");
    request += "\r\n";
    int rc = rt::NET_OK;
    write(request.data(), request.size(), &rc);
    // The proxy's answer is read like any other: the same bounds apply.
    HttpResponse answer(this);
    if (rc == rt::NET_OK) {
        answer.readHeader(&rc);
        m_status = answer.failure();
    }
    const int status = answer.getStatusCode();
    if (rc == rt::NET_OK && (status < 100 || status > 599)) {
        rc = rt::NET_ERR_PROTOCOL;
        m_status = Status::failed(rc, {}, "Malformed answer from", m_peer, "no status code");
    }
    if (rc != rt::NET_OK) {
        m_status.what.insert(0, "Tunnel request: ");
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::openTunnel no answer from the proxy:", rc,
                rt::netRcText(rc));
        return rc;
    }
    if (status / 100 == 2) {
        early = answer.takeUnread();
        trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::openTunnel tunnel open to", target);
        return rt::NET_OK;
    }
    const std::string refusal =
        std::to_string(status) + " (" + utf8(answer.getReasonPhrase().c_str()) + ")";
    m_status = Status::failed(rt::NET_ERR_PROXY, Status::Step::Proxy, "Proxy", m_peer,
                              "HTTP status " + refusal, "refused the tunnel");
    trace.t(Trace::TRANSPORT_LEVEL, "IPConnection::openTunnel proxy refused the tunnel:", refusal);
    return rt::NET_ERR_PROXY;
}

int IPConnection::ioFailed(int code, Status::Step step, const char* what) {
    m_status.step = step;
    m_status.what = what;
    m_status.context = m_peer;
    m_status.after.clear();
    return code;
}

size_t IPConnection::write(const void* data, size_t size, int* rc) {
    size_t written = 0;
    int code = rt::NET_ERR_INVALID;
    if (m_handle >= 0) {
        code = m_session
                   ? rt::tlsWrite(*m_session, data, size, m_sendMs, &written, &m_status)
                   : rt::netWrite(m_handle, data, size, waitMs(m_sendMs), &written, &m_status);
        if (code != rt::NET_OK && m_session && !rt::tlsLastReason(*m_session).empty())
            Trace::instance().t(Trace::TRANSPORT_LEVEL,
                                "IPConnection::write TLS:", rt::tlsLastReason(*m_session));
        if (code != rt::NET_OK) ioFailed(code, Status::Step::Send, "Sending to");
    }
    if (rc != nullptr) *rc = code;
    return written;
}

size_t IPConnection::read(void* data, size_t size, int* rc) {
    size_t got = 0;
    int code = rt::NET_ERR_INVALID;
    if (m_handle >= 0) {
        code = m_session ? rt::tlsRead(*m_session, data, size, m_readMs, &got, &m_status)
                         : rt::netRead(m_handle, data, size, waitMs(m_readMs), &got, &m_status);
        if (code != rt::NET_OK && code != rt::NET_ERR_CLOSED && m_session)
            Trace::instance().t(Trace::TRANSPORT_LEVEL,
                                "IPConnection::read TLS:", rt::tlsLastReason(*m_session));
        if (code != rt::NET_OK) ioFailed(code, Status::Step::Receive, "Reading from");
    }
    if (rc != nullptr) *rc = code;
    return got;
}

int IPConnection::close() {
    if (m_handle < 0) return 0;
    m_session.reset();  // close_notify goes out before the socket closes
    rt::netClose(m_handle);
    m_handle = -1;
    return 1;
}

}  // namespace kivreg
