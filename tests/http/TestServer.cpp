#include "TestServer.h"

#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "testutil/TestUtil.h"

namespace kivreg::test {

namespace {

int listenOnLoopback(std::string& port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket failed");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        ::close(fd);
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    port = std::to_string(ntohs(addr.sin_port));
    return fd;
}

std::string sslErrors() {
    std::string text;
    char buf[256];
    for (unsigned long e; (e = ERR_get_error()) != 0;) {
        ERR_error_string_n(e, buf, sizeof buf);
        text += buf;
        text += ' ';
    }
    return text;
}

struct CtxFree {
    void operator()(SSL_CTX* c) const { SSL_CTX_free(c); }
};

}  // namespace

bool Peer::readSome(std::string& into, int timeoutMs) {
    char buf[65536];
    long n;
    if (m_ssl != nullptr) {
        if (SSL_pending(m_ssl) == 0) {
            pollfd p{m_fd, POLLIN, 0};
            if (poll(&p, 1, timeoutMs) <= 0) return false;
        }
        n = SSL_read(m_ssl, buf, sizeof buf);
    } else {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) return false;
        n = recv(m_fd, buf, sizeof buf, 0);
    }
    if (n <= 0) return false;
    into.append(buf, static_cast<size_t>(n));
    std::lock_guard<std::mutex> guard(m_lock);
    m_record.append(buf, static_cast<size_t>(n));
    return true;
}

std::string Peer::readRequest() {
    std::string got;
    size_t headerEnd;
    while ((headerEnd = got.find("\r\n\r\n")) == std::string::npos)
        if (!readSome(got, kServerWaitMs)) return got;
    size_t length = 0;
    std::string lower = got.substr(0, headerEnd);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (const size_t at = lower.find("\r\ncontent-length:"); at != std::string::npos)
        length = std::strtoul(lower.c_str() + at + 17, nullptr, 10);
    while (got.size() < headerEnd + 4 + length)
        if (!readSome(got, kServerWaitMs)) break;
    return got;
}

std::string Peer::readUntilClosed(int timeoutMs) {
    std::string got;
    while (readSome(got, timeoutMs)) {
    }
    return got;
}

bool Peer::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const long n = m_ssl != nullptr ? SSL_write(m_ssl, bytes.data(), static_cast<int>(bytes.size()))
                                        : ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

void Peer::abort() {
    const linger reset{1, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(m_fd);
    m_fd = -1;
}

TestServer::TestServer(Handler handler, std::optional<TlsServerConfig> tls) {
    m_listen = listenOnLoopback(m_port);
    m_thread = std::thread(&TestServer::run, this, std::move(handler), std::move(tls));
}

TestServer::~TestServer() {
    join();
    ::close(m_listen);
}

void TestServer::join() {
    if (m_thread.joinable()) m_thread.join();
}

std::string TestServer::received() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_record;
}

std::string TestServer::tlsError() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_tlsError;
}

std::string TestServer::clientSubject() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_clientSubject;
}

void TestServer::run(Handler handler, std::optional<TlsServerConfig> tls) {
    // A client that goes away must not take the test program with it: the
    // server writes with SIGPIPE blocked in this thread only.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    pollfd p{m_listen, POLLIN, 0};
    if (poll(&p, 1, 2 * kServerWaitMs) <= 0) return;
    const int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    m_accepted = true;
    const timeval limit{kServerWaitMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);

    std::unique_ptr<SSL_CTX, CtxFree> ctx;
    SSL* ssl = nullptr;
    if (tls) {
        ctx.reset(SSL_CTX_new(TLS_server_method()));
        bool ok = ctx && SSL_CTX_use_certificate_chain_file(ctx.get(), tls->certFile.c_str()) == 1 &&
                  SSL_CTX_use_PrivateKey_file(ctx.get(), tls->keyFile.c_str(), SSL_FILETYPE_PEM) == 1;
        if (ok && !tls->clientCaFile.empty()) {
            ok = SSL_CTX_load_verify_locations(ctx.get(), tls->clientCaFile.c_str(), nullptr) == 1;
            SSL_CTX_set_client_CA_list(ctx.get(), SSL_load_client_CA_file(tls->clientCaFile.c_str()));
            SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        }
        if (ok && tls->maxVersion != 0) {
            SSL_CTX_set_security_level(ctx.get(), 0);
            SSL_CTX_set_min_proto_version(ctx.get(), 0);
            ok = SSL_CTX_set_max_proto_version(ctx.get(), tls->maxVersion) == 1;
        }
        ssl = ok ? SSL_new(ctx.get()) : nullptr;
        if (ssl != nullptr) SSL_set_fd(ssl, fd);
        if (ssl == nullptr || SSL_accept(ssl) != 1) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_tlsError = "handshake failed: " + sslErrors();
            SSL_free(ssl);
            ::close(fd);
            return;
        }
        m_handshakeDone = true;
        if (X509* cert = SSL_get1_peer_certificate(ssl)) {
            char name[256];
            X509_NAME_oneline(X509_get_subject_name(cert), name, sizeof name);
            X509_free(cert);
            std::lock_guard<std::mutex> guard(m_lock);
            m_clientSubject = name;
        }
    }
    Peer peer(fd, ssl, m_record, m_lock);
    handler(peer);
    if (ssl != nullptr) {
        if (peer.fd() >= 0) SSL_shutdown(ssl);
        SSL_free(ssl);
    }
    if (peer.fd() >= 0) ::close(peer.fd());
}

std::string closedPort() {
    std::string port;
    ::close(listenOnLoopback(port));
    return port;
}

const std::string& testCertDir() {
    static TempDir dir;
    static const std::string path = [] {
        const std::string cmd = std::string("bash '") + KIVREG_SOURCE_DIR + "/tests/http/make_test_certs.sh' '" +
                                dir.path().string() + "' >/dev/null 2>&1";
        if (std::system(cmd.c_str()) != 0) throw std::runtime_error("make_test_certs.sh failed");
        return dir.path().string();
    }();
    return path;
}

}  // namespace kivreg::test
