#include "http/HttpRequest.h"

#include <new>

#include "http/Base64.h"
#include "http/IIPConnection.h"
#include "http/IURL.h"
#include "http/Trace.h"
#include "runtime/NetRc.h"
#include "support/CGetStr.h"
#include "support/Status.h"

namespace kivreg {

namespace {

constexpr int LEVEL = Trace::TRANSPORT_LEVEL;
constexpr std::string_view CRLF = "\r\n";

// Header text is 7-bit ASCII on the wire; anything else becomes '?'.
std::string ascii7(std::u16string_view text) {
    std::string out;
    out.reserve(text.size() + CRLF.size());
    for (char16_t c : text) out += c < 0x80 ? static_cast<char>(c) : '?';
    return out;
}

std::string line(std::u16string_view text) {
    return ascii7(text).append(CRLF);
}

std::u16string_view orEmpty(const char16_t* text) {
    return text != nullptr ? text : u"";
}

// Base64 of "user:password"; empty when either is missing.
std::u16string encodeUsrPwd(const char16_t* user, const char16_t* password) {
    if (user == nullptr || password == nullptr) return {};
    std::u16string joined(user);
    joined += u':';
    joined += password;
    return Base64::encode(std::u16string_view(joined));
}

}  // namespace

int createIHttpRequest(IIPConnection& connection, IURL& url, std::unique_ptr<IHttpRequest>& out) {
    out.reset(new (std::nothrow) HttpRequest(connection, url));
    return out ? 0 : -1;
}

HttpRequest::HttpRequest(IIPConnection& connection, IURL& url)
    : m_url(url), m_connection(connection) {}

std::string HttpRequest::makeCmdLine() const {
    std::string text = "POST ";
    text += ascii7(m_viaProxy ? m_url.getUrl() : std::u16string(orEmpty(m_url.getRawPath())));
    text += " HTTP/1.1\r\nHost: ";
    // The port stays out of Host even when it is not the default one.
    text += ascii7(hostPort(orEmpty(m_url.getHost())));
    text += "\r\nConnection: Close";
    return text;
}

int HttpRequest::connect(int* rc) {
    const bool secure = m_url.isSecure();
    const char16_t* defaultPort = secure ? u"443" : u"80";
    const auto pick = [&](const char16_t* port) {
        return orEmpty(port).empty() ? defaultPort : port;
    };
    Trace& trace = Trace::instance();
    const std::u16string_view target = orEmpty(m_url.getHost());
    const bool viaProxy = !orEmpty(m_url.getProxy()).empty();
    // A TLS server is reached through a tunnel and then spoken to as directly;
    // plain HTTP names the whole URL to the proxy.
    const bool tunnel = viaProxy && secure;
    m_viaProxy = viaProxy && !secure;
    const std::u16string host(viaProxy ? orEmpty(m_url.getProxy()) : target);
    const std::u16string port(pick(viaProxy ? m_url.getPport() : m_url.getHport()));
    if (target.empty() && !m_viaProxy) {
        trace.t(LEVEL, "HttpRequest::connect failed, hostname unknown");
        return -11;
    }
    trace.t(LEVEL, "HttpRequest::connect try URL", m_url.getUrl());
    const int code =
        tunnel ? m_connection.openTunnel(host.c_str(), port.c_str(), m_url.getHost(),
                                         pick(m_url.getHport()),
                                         ascii7(encodeUsrPwd(m_url.getPuser(), m_url.getPpass())))
               : m_connection.open(host.c_str(), port.c_str(), secure);
    if (rc != nullptr) *rc = code;
    if (code != rt::NET_OK) {
        trace.t(LEVEL, "HttpRequest::connect FAILED to", host, port);
        return -11;
    }
    trace.t(LEVEL, "HttpRequest::connect successful to", host, port);
    // Every request goes whole on a connection of its own.
    trace.t(LEVEL, "HttpRequest::connect", "Unchunked", "Transient");
    return 10;
}

void HttpRequest::completeHeader() {
    m_header.insert(0, makeCmdLine() + std::string(CRLF));
    const auto addAuth = [this](const char16_t* prefix, const char16_t* user,
                                const char16_t* password) {
        if (const std::u16string code = encodeUsrPwd(user, password); !code.empty())
            addHeaderline(prefix + code);
    };
    if (m_viaProxy) addAuth(u"Proxy-Authorization: Basic ", m_url.getPuser(), m_url.getPpass());
    addAuth(u"Authorization: Basic ", m_url.getHuser(), m_url.getHpass());
    // A length line of the caller's own is not looked for: this one is
    // always added for a body.
    if (m_bodySize != 0) {
        addHeaderline(u"Content-Length: " +
                      CGetStr<long long>::get(static_cast<long long>(m_bodySize)));
        Trace::instance().t(LEVEL, "HttpRequest::completeHeader",
                            static_cast<long long>(m_bodySize));
    }
    addHeaderline(u"");
}

size_t HttpRequest::writeBuffer(std::string_view buffer, int* rc) {
    return m_connection.write(buffer.data(), buffer.size(), rc);
}

size_t HttpRequest::writeBody(int* rc) {
    int code = 0;
    size_t written = 0;
    // Each piece reports progress as it goes, and the first that fails ends the body.
    const auto writePiece = [&](std::string_view piece) {
        const size_t n = writeBuffer(piece, &code);
        written += n;
        if (m_progress) m_progress(written, m_bodySize);
        return code == 0 && n == piece.size();
    };
    if (m_bodySize != 0) {
        if (m_writer) {
            m_writer(PROGRESS_STEP, writePiece);
        } else if (!m_progress) {
            written = writeBuffer(m_body, &code);
        } else {
            const std::string_view body = m_body;
            while (written < body.size() && writePiece(body.substr(written, PROGRESS_STEP))) {
            }
        }
        ++m_sendCount;
        Trace::instance().t(LEVEL, "HttpRequest::sendBody", m_sendCount, code, m_bodySize, written);
    }
    if (rc != nullptr) *rc = code;
    return written;
}

size_t HttpRequest::sendMessage(int* rc) {
    // Only the body write's code reaches the caller; a failed header write
    // shows in the byte count alone.
    int code = 0;
    completeHeader();
    const size_t header = writeBuffer(m_header, &code);
    if (rc != nullptr) *rc = code;
    Trace::instance().t(LEVEL, "HttpRequest::sendHeader", code, m_header.size(), header, -1);
    const int headerCode = code;
    const size_t body = writeBody(&code);
    if (rc != nullptr) *rc = code;
    Trace::instance().t(LEVEL, "HttpRequest::sendMessage", header + body);
    m_failure = {};
    if (headerCode != 0 || code != 0) {
        m_failure = m_connection.status();
        m_failure.after = "failed after " + bytesText(header + body) + " of " +
                          bytesText(m_header.size() + m_bodySize);
    }
    return header + body;
}

void HttpRequest::setHeaderline(std::u16string_view text) {
    m_header = line(text);
}

void HttpRequest::addHeaderline(std::u16string_view text) {
    m_header += line(text);
}

// A request carries one body: bytes or a writer, set once.
void HttpRequest::setBody(std::string&& bytes) {
    m_body = std::move(bytes);
    m_bodySize = m_body.size();
}

void HttpRequest::setBodyWriter(size_t size, BodyWriter writer) {
    m_writer = std::move(writer);
    m_bodySize = size;
}

}  // namespace kivreg
