#include "runtime/Tls.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <functional>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "runtime/NetSocket.h"
#include "support/Status.h"

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

int tlsFailure(Status& status, int code, std::string what, std::string context,
               std::string reason) {
    status = Status::failed(code, Status::Step::Tls, std::move(what), std::move(context),
                            std::move(reason));
    return code;
}

int loadCredentialFiles(SSL_CTX* ctx, const std::string& dir, Status& status) {
    if (dir.empty()) return NET_OK;
    const std::string base = dir.back() == '/' ? dir : dir + '/';

    const std::string trust = base + TLS_TRUST_FILE;
    if (readable(trust) && SSL_CTX_load_verify_locations(ctx, trust.c_str(), nullptr) != 1)
        return tlsFailure(status, NET_ERR_TLS, "TLS: cannot load trusted certificates from", trust,
                          takeErrors());
    const std::string client = base + TLS_CLIENT_FILE;
    if (readable(client) &&
        (SSL_CTX_use_certificate_chain_file(ctx, client.c_str()) != 1 ||
         SSL_CTX_use_PrivateKey_file(ctx, client.c_str(), SSL_FILETYPE_PEM) != 1 ||
         SSL_CTX_check_private_key(ctx) != 1))
        return tlsFailure(status, NET_ERR_TLS, "TLS: cannot load client certificate and key from",
                          client, takeErrors());
    return NET_OK;
}

std::string printed(const std::function<int(BIO*)>& print) {
    BIO* bio = BIO_new(BIO_s_mem());
    if (bio == nullptr) return {};
    std::string text;
    if (print(bio) > 0) {
        char* data = nullptr;
        const long n = BIO_get_mem_data(bio, &data);
        if (n > 0) text.assign(data, static_cast<size_t>(n));
    }
    BIO_free(bio);
    return text;
}

std::string nameText(const X509_NAME* name) {
    return printed([name](BIO* b) { return X509_NAME_print_ex(b, name, 0, XN_FLAG_RFC2253); });
}

std::string timeText(const ASN1_TIME* t) {
    return printed([t](BIO* b) { return ASN1_TIME_print(b, t); });
}

// The DNS names and addresses the certificate is for, else its subject.
std::string certifiedNames(X509* cert) {
    std::string names;
    auto* list =
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; i < sk_GENERAL_NAME_num(list); ++i) {
        const GENERAL_NAME* n = sk_GENERAL_NAME_value(list, i);
        std::string one;
        if (n->type == GEN_DNS) {
            one.assign(reinterpret_cast<const char*>(ASN1_STRING_get0_data(n->d.dNSName)),
                       static_cast<size_t>(ASN1_STRING_length(n->d.dNSName)));
        } else if (n->type == GEN_IPADD) {
            const int len = ASN1_STRING_length(n->d.iPAddress);
            char text[INET6_ADDRSTRLEN] = {};
            if (inet_ntop(len == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(n->d.iPAddress),
                          text, sizeof text) != nullptr &&
                (len == 4 || len == 16))
                one = text;
        }
        if (!one.empty()) names += (names.empty() ? "" : ", ") + one;
    }
    GENERAL_NAMES_free(list);
    return names.empty() ? nameText(X509_get_subject_name(cert)) : names;
}

// A verify failure in OpenSSL's words, with the certificate the server showed.
int verifyFailure(SSL* ssl, long verify, const std::string& host, Status& status) {
    STACK_OF(X509)* chain = SSL_get_peer_cert_chain(ssl);
    X509* cert = sk_X509_num(chain) > 0 ? sk_X509_value(chain, 0) : nullptr;
    ERR_clear_error();
    if (cert != nullptr &&
        (verify == X509_V_ERR_HOSTNAME_MISMATCH || verify == X509_V_ERR_IP_ADDRESS_MISMATCH))
        return tlsFailure(status, NET_ERR_TLS_VERIFY, "TLS: host name mismatch for", host,
                          "the certificate is for " + certifiedNames(cert));
    std::string reason = X509_verify_cert_error_string(verify);
    if (cert != nullptr)
        reason += " (subject " + nameText(X509_get_subject_name(cert)) + ", issuer " +
                  nameText(X509_get_issuer_name(cert)) + ", valid from " +
                  timeText(X509_get0_notBefore(cert)) + " until " +
                  timeText(X509_get0_notAfter(cert)) + ")";
    return tlsFailure(status, NET_ERR_TLS_VERIFY, "TLS: certificate verify failed for", host,
                      std::move(reason));
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

int tlsInit(TlsContextPtr& out, const std::string& credentialDir, Status& status) {
    out.reset();
    ERR_clear_error();
    if (OPENSSL_init_ssl(0, nullptr) != 1 || socketMethod() == nullptr)
        return tlsFailure(status, NET_ERR_TLS, "TLS: cannot initialise OpenSSL", {}, takeErrors());
    TlsContextPtr ctx(new TlsContext);
    ctx->ctx = SSL_CTX_new(TLS_client_method());
    if (ctx->ctx == nullptr || SSL_CTX_set_min_proto_version(ctx->ctx, TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_default_verify_paths(ctx->ctx) != 1)
        return tlsFailure(status, NET_ERR_TLS, "TLS: cannot set up the client", {}, takeErrors());
    SSL_CTX_set_verify(ctx->ctx, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(ctx->ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (const int rc = loadCredentialFiles(ctx->ctx, credentialDir, status); rc != NET_OK)
        return rc;
    out = std::move(ctx);
    return NET_OK;
}

int tlsSessionStart(TlsContext& ctx, int handle, const std::string& host, int timeoutMs,
                    TlsSessionPtr& out, Status& status, std::string early) {
    out.reset();
    if (handle < 0 || host.empty()) return NET_ERR_INVALID;
    ERR_clear_error();
    TlsSessionPtr s(new TlsSession);
    s->transport.fd = handle;
    s->transport.early = std::move(early);
    s->ssl = SSL_new(ctx.ctx);
    BIO* bio = s->ssl != nullptr ? BIO_new(socketMethod()) : nullptr;
    if (bio == nullptr)
        return tlsFailure(status, NET_ERR_TLS, "TLS: cannot create a session for", host,
                          takeErrors());
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
    if (!targetSet)
        return tlsFailure(status, NET_ERR_TLS, "TLS: cannot expect the server name", host,
                          takeErrors());

    const NetDeadline deadline(timeoutMs);
    for (;;) {
        const int ret = SSL_connect(s->ssl);
        if (ret == 1) break;
        const long verify = SSL_get_verify_result(s->ssl);
        if (verify != X509_V_OK) return verifyFailure(s->ssl, verify, host, status);
        if (const int rc = settle(*s, ret, deadline); rc == NET_ERR_TIMEOUT) {
            return tlsFailure(
                status, rc,
                "Timed out after " + secondsText(timeoutMs) + " in the TLS handshake with", host,
                {});
        } else if (rc != NET_OK) {
            return tlsFailure(status, rc, "TLS handshake failed with", host,
                              s->lastReason.empty() ? "the connection was closed" : s->lastReason);
        }
    }
    out = std::move(s);
    return NET_OK;
}

int tlsWrite(TlsSession& s, const void* data, size_t size, int timeoutMs, size_t* written,
             Status* status) {
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
    return rc == NET_OK ? rc : ioFailure(status, rc, timeoutMs, s.lastReason);
}

int tlsRead(TlsSession& s, void* data, size_t size, int timeoutMs, size_t* got, Status* status) {
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
        if (const int rc = settle(s, ret, deadline); rc != NET_OK)
            return ioFailure(status, rc, timeoutMs, s.lastReason);
    }
}

const std::string& tlsLastReason(const TlsSession& s) {
    return s.lastReason;
}

std::string tlsDescribe(const TlsSession& s) {
    return std::string(SSL_get_version(s.ssl)) + " " + SSL_get_cipher_name(s.ssl);
}

}  // namespace kivreg::rt
