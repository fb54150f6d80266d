#include "runtime/Tls.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "runtime/NetSocket.h"

namespace kivreg::rt {

struct TlsContext {
    SSL_CTX* ctx = nullptr;
    ~TlsContext() { SSL_CTX_free(ctx); }
};

// What the socket BIO reads from: bytes received before the session began
// (what followed a proxy's answer), then the socket.
struct TlsTransport {
    int fd = -1;
    std::string early;
    size_t earlyPos = 0;
};

struct TlsSession {
    SSL* ssl = nullptr;
    TlsTransport transport;
    std::string lastReason;
    ~TlsSession() { SSL_free(ssl); }
};

void TlsContextFree::operator()(TlsContext* ctx) const noexcept {
    delete ctx;
}

void TlsSessionFree::operator()(TlsSession* session) const noexcept {
    if (session == nullptr) return;
    // Best effort: the socket is non-blocking, so this never waits.
    if (session->ssl != nullptr && SSL_is_init_finished(session->ssl)) {
        ERR_set_mark();
        SSL_shutdown(session->ssl);
        ERR_pop_to_mark();
    }
    delete session;
}

namespace {

// OpenSSL's own socket BIO writes with write(2), which raises SIGPIPE when the
// peer has gone. This BIO goes through send(2) with MSG_NOSIGNAL instead and
// leaves the socket (owned by the caller) open when it is freed.
TlsTransport& bioTransport(BIO* b) {
    return *static_cast<TlsTransport*>(BIO_get_data(b));
}

int bioWrite(BIO* b, const char* data, size_t len, size_t* written) {
    BIO_clear_retry_flags(b);
    for (;;) {
        const ssize_t n = send(bioTransport(b).fd, data, len, MSG_NOSIGNAL);
        if (n >= 0) {
            *written = static_cast<size_t>(n);
            return 1;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_write(b);
        return 0;
    }
}

int bioRead(BIO* b, char* data, size_t len, size_t* got) {
    BIO_clear_retry_flags(b);
    TlsTransport& t = bioTransport(b);
    if (t.earlyPos < t.early.size()) {
        *got = t.early.copy(data, len, t.earlyPos);
        t.earlyPos += *got;
        return 1;
    }
    for (;;) {
        const ssize_t n = recv(t.fd, data, len, 0);
        if (n > 0) {
            *got = static_cast<size_t>(n);
            return 1;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) BIO_set_retry_read(b);
        if (n == 0) errno = 0;  // end of stream, not a socket error
        return 0;
    }
}

long bioCtrl(BIO*, int cmd, long, void*) {
    return cmd == BIO_CTRL_FLUSH ? 1 : 0;
}

int bioCreate(BIO* b) {
    BIO_set_init(b, 1);
    return 1;
}

const BIO_METHOD* socketMethod() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "kivreg socket");
        if (m != nullptr) {
            BIO_meth_set_write_ex(m, bioWrite);
            BIO_meth_set_read_ex(m, bioRead);
            BIO_meth_set_ctrl(m, bioCtrl);
            BIO_meth_set_create(m, bioCreate);
        }
        return m;
    }();
    return method;
}

// Drains OpenSSL's error queue into one line.
std::string takeErrors(std::string text = {}) {
    char buf[256];
    for (unsigned long e; (e = ERR_get_error()) != 0;) {
        ERR_error_string_n(e, buf, sizeof buf);
        if (!text.empty()) text += "; ";
        text += buf;
    }
    return text;
}

bool isIpLiteral(const std::string& host) {
    unsigned char addr[16];
    return inet_pton(AF_INET, host.c_str(), addr) == 1 ||
           inet_pton(AF_INET6, host.c_str(), addr) == 1;
}

bool readable(const std::string& path) {
    return access(path.c_str(), R_OK) == 0;
}

int loadSecudirFiles(SSL_CTX* ctx, std::string& reason) {
    const char* dir = std::getenv("SECUDIR");
    if (dir == nullptr || *dir == '\0') return NET_OK;
    std::string base(dir);
    if (base.back() != '/') base += '/';

    const std::string trust = base + TLS_TRUST_FILE;
    if (readable(trust) && SSL_CTX_load_verify_locations(ctx, trust.c_str(), nullptr) != 1) {
        reason = takeErrors("cannot load trusted certificates from " + trust + ": ");
        return NET_ERR_TLS;
    }
    const std::string client = base + TLS_CLIENT_FILE;
    if (readable(client) &&
        (SSL_CTX_use_certificate_chain_file(ctx, client.c_str()) != 1 ||
         SSL_CTX_use_PrivateKey_file(ctx, client.c_str(), SSL_FILETYPE_PEM) != 1 ||
         SSL_CTX_check_private_key(ctx) != 1)) {
        reason = takeErrors("cannot load client certificate and key from " + client + ": ");
        return NET_ERR_TLS;
    }
    return NET_OK;
}

// Maps a failed SSL call to a code, waiting when OpenSSL only needs the socket
// to become ready. Returns NET_OK when the call should simply be repeated.
int settle(TlsSession& s, int ret, const NetDeadline& deadline) {
    const int err = SSL_get_error(s.ssl, ret);
    switch (err) {
        case SSL_ERROR_WANT_READ:
            return netWait(s.transport.fd, false, deadline.remainingMs());
        case SSL_ERROR_WANT_WRITE:
            return netWait(s.transport.fd, true, deadline.remainingMs());
        case SSL_ERROR_ZERO_RETURN:
            s.lastReason = "peer closed the TLS session";
            return NET_ERR_CLOSED;
        case SSL_ERROR_SYSCALL: {
            const int e = errno;
            s.lastReason = takeErrors(e != 0 ? std::string("socket: ") + strerror(e)
                                             : "unexpected end of stream");
            return NET_ERR_CLOSED;
        }
        default: {
            const bool eof =
                ERR_GET_REASON(ERR_peek_last_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
            s.lastReason = takeErrors();
            return eof ? NET_ERR_CLOSED : NET_ERR_TLS;
        }
    }
}

}  // namespace

int tlsInit(TlsContextPtr& out, std::string& reason) {
    out.reset();
    ERR_clear_error();
    if (OPENSSL_init_ssl(0, nullptr) != 1 || socketMethod() == nullptr) {
        reason = takeErrors("cannot initialise OpenSSL: ");
        return NET_ERR_TLS;
    }
    TlsContextPtr ctx(new TlsContext);
    ctx->ctx = SSL_CTX_new(TLS_client_method());
    if (ctx->ctx == nullptr || SSL_CTX_set_min_proto_version(ctx->ctx, TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_default_verify_paths(ctx->ctx) != 1) {
        reason = takeErrors("cannot set up TLS client: ");
        return NET_ERR_TLS;
    }
    SSL_CTX_set_verify(ctx->ctx, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(ctx->ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (const int rc = loadSecudirFiles(ctx->ctx, reason); rc != NET_OK) return rc;
    out = std::move(ctx);
    return NET_OK;
}

int tlsSessionStart(TlsContext& ctx, int handle, const std::string& host, int timeoutMs,
                    TlsSessionPtr& out, std::string& reason, std::string early) {
    out.reset();
    if (handle < 0 || host.empty()) return NET_ERR_INVALID;
    ERR_clear_error();
    TlsSessionPtr s(new TlsSession);
    s->transport.fd = handle;
    s->transport.early = std::move(early);
    s->ssl = SSL_new(ctx.ctx);
    BIO* bio = s->ssl != nullptr ? BIO_new(socketMethod()) : nullptr;
    if (bio == nullptr) {
        reason = takeErrors("cannot create TLS session: ");
        return NET_ERR_TLS;
    }
    BIO_set_data(bio, &s->transport);
    SSL_set_bio(s->ssl, bio, bio);

    // The certificate must name exactly what was asked for: an address is
    // matched against IP entries, a name against DNS entries and sent as SNI.
    bool targetSet;
    if (isIpLiteral(host)) {
        targetSet = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(s->ssl), host.c_str()) == 1;
    } else {
        SSL_set_hostflags(s->ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        targetSet = SSL_set_tlsext_host_name(s->ssl, host.c_str()) == 1 &&
                    SSL_set1_host(s->ssl, host.c_str()) == 1;
    }
    if (!targetSet) {
        reason = takeErrors("cannot set the expected server name " + host + ": ");
        return NET_ERR_TLS;
    }

    const NetDeadline deadline(timeoutMs);
    for (;;) {
        const int ret = SSL_connect(s->ssl);
        if (ret == 1) break;
        const long verify = SSL_get_verify_result(s->ssl);
        if (verify != X509_V_OK) {
            reason = takeErrors(std::string("certificate verify failed: ") +
                                X509_verify_cert_error_string(verify));
            return NET_ERR_TLS_VERIFY;
        }
        if (const int rc = settle(*s, ret, deadline); rc != NET_OK) {
            reason = "TLS handshake failed: " +
                     (rc == NET_ERR_TIMEOUT ? std::string("timed out") : s->lastReason);
            return rc;
        }
    }
    out = std::move(s);
    return NET_OK;
}

int tlsWrite(TlsSession& s, const void* data, size_t size, int timeoutMs, size_t* written) {
    s.lastReason.clear();
    size_t done = 0;
    int rc = NET_OK;
    const NetDeadline deadline(timeoutMs);
    const auto* p = static_cast<const char*>(data);
    while (rc == NET_OK && done < size) {
        ERR_clear_error();
        size_t n = 0;
        const int ret = SSL_write_ex(s.ssl, p + done, size - done, &n);
        if (ret == 1)
            done += n;
        else
            rc = settle(s, ret, deadline);
    }
    if (written != nullptr) *written = done;
    return rc;
}

int tlsRead(TlsSession& s, void* data, size_t size, int timeoutMs, size_t* got) {
    s.lastReason.clear();
    if (got != nullptr) *got = 0;
    if (size == 0) return NET_OK;
    const NetDeadline deadline(timeoutMs);
    for (;;) {
        ERR_clear_error();
        size_t n = 0;
        const int ret = SSL_read_ex(s.ssl, data, size, &n);
        if (ret == 1) {
            if (got != nullptr) *got = n;
            return NET_OK;
        }
        if (const int rc = settle(s, ret, deadline); rc != NET_OK) return rc;
    }
}

const std::string& tlsLastReason(const TlsSession& s) {
    return s.lastReason;
}

std::string tlsDescribe(const TlsSession& s) {
    return std::string(SSL_get_version(s.ssl)) + " " + SSL_get_cipher_name(s.ssl);
}

}  // namespace kivreg::rt
