#include "TestServer.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "testutil/TestUtil.h"

namespace kivreg::test {

bool Peer::readSome(std::string& into, int timeoutMs) {
    char buf[65536];
    pollfd p{m_fd, POLLIN, 0};
    if ((m_ssl == nullptr || SSL_pending(m_ssl) == 0) && poll(&p, 1, timeoutMs) <= 0) return false;
    const long n =
        m_ssl != nullptr ? SSL_read(m_ssl, buf, sizeof buf) : recv(m_fd, buf, sizeof buf, 0);
    if (n <= 0) return false;
    into.append(buf, static_cast<size_t>(n));
    std::lock_guard<std::mutex> guard(m_server->m_lock);
    m_server->m_record.append(buf, static_cast<size_t>(n));
    return true;
}

std::string Peer::readRequest(size_t bodyBytes) {
    std::string got;
    size_t end;
    while ((end = got.find("\r\n\r\n")) == std::string::npos)
        if (!readSome(got, kServerWaitMs)) return got;
    std::string lower = got.substr(0, end);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const size_t at = lower.find("\r\ncontent-length:");
    const size_t length = std::min<size_t>(
        bodyBytes,
        at == std::string::npos ? 0 : std::strtoul(lower.c_str() + at + 17, nullptr, 10));
    while (got.size() < end + 4 + length && readSome(got, kServerWaitMs)) {
    }
    return got;
}

bool Peer::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const long n = m_ssl != nullptr
                           ? SSL_write(m_ssl, bytes.data(), static_cast<int>(bytes.size()))
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

void TestServer::run(Handler handler, std::optional<TlsServerConfig> tls) {
    // A client that goes away must not take the test program with it.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    pollfd p{m_listen, POLLIN, 0};
    const int fd =
        poll(&p, 1, 2 * kServerWaitMs) > 0 ? accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    if (fd < 0) return;
    const timeval limit{kServerWaitMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    Peer peer;
    peer.m_fd = fd;
    peer.m_server = this;
    SSL_CTX* ctx = nullptr;
    if (tls) {
        ctx = SSL_CTX_new(TLS_server_method());
        bool ok = SSL_CTX_use_certificate_chain_file(ctx, tls->cert.c_str()) == 1 &&
                  SSL_CTX_use_PrivateKey_file(ctx, tls->key.c_str(), SSL_FILETYPE_PEM) == 1;
        if (!tls->clientCa.empty()) {
            ok = ok && SSL_CTX_load_verify_locations(ctx, tls->clientCa.c_str(), nullptr) == 1;
            SSL_CTX_set_client_CA_list(ctx, SSL_load_client_CA_file(tls->clientCa.c_str()));
            SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        }
        peer.m_ssl = ok ? SSL_new(ctx) : nullptr;
        handshakeDone =
            peer.m_ssl != nullptr && SSL_set_fd(peer.m_ssl, fd) == 1 && SSL_accept(peer.m_ssl) == 1;
        if (X509* cert = handshakeDone ? SSL_get1_peer_certificate(peer.m_ssl) : nullptr) {
            char name[256];
            clientSubject = X509_NAME_oneline(X509_get_subject_name(cert), name, sizeof name);
            X509_free(cert);
        }
    }
    if (!tls || handshakeDone) handler(peer);
    if (peer.m_ssl != nullptr && peer.m_fd >= 0 && handshakeDone) SSL_shutdown(peer.m_ssl);
    SSL_free(peer.m_ssl);
    SSL_CTX_free(ctx);
    if (peer.m_fd >= 0) ::close(peer.m_fd);
}

}  // namespace kivreg::test
