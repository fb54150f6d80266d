#pragma once
// An in-process server on 127.0.0.1 for transport tests: a thread accepts one
// connection (plain or TLS), runs a scripted handler on it, and records every
// byte the handler read. Every wait is bounded, and the destructor joins.

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

typedef struct ssl_st SSL;

namespace kivreg::test {

constexpr int kServerWaitMs = 5000;

struct TlsServerConfig {
    std::string certFile;      // server certificate chain (PEM)
    std::string keyFile;       // its key (PEM)
    std::string clientCaFile;  // when set, a client certificate from this CA is required
    int maxVersion = 0;        // e.g. TLS1_1_VERSION to offer only older protocols
};

// The server side of one accepted connection.
class Peer {
public:
    Peer(int fd, SSL* ssl, std::string& record, std::mutex& lock) : m_fd(fd), m_ssl(ssl), m_record(record), m_lock(lock) {}
    // One request: the header and as many body bytes as its Content-Length says.
    std::string readRequest();
    // Everything until the client closes (or the wait runs out).
    std::string readUntilClosed(int timeoutMs = kServerWaitMs);
    // Answers; false when the client has gone.
    bool send(std::string_view bytes);
    // Closes with a reset instead of an orderly close.
    void abort();
    int fd() const { return m_fd; }

private:
    // Appends what arrives within the wait; false on close, error or timeout.
    bool readSome(std::string& into, int timeoutMs);
    int m_fd;
    SSL* m_ssl;
    std::string& m_record;
    std::mutex& m_lock;
};

class TestServer {
public:
    using Handler = std::function<void(Peer&)>;
    explicit TestServer(Handler handler, std::optional<TlsServerConfig> tls = std::nullopt);
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    const std::string& port() const { return m_port; }
    // Waits for the handler to finish; afterwards received() is complete.
    void join();
    std::string received() const;
    bool accepted() const { return m_accepted; }
    // TLS only: whether the handshake completed, why not, and the client's certificate subject.
    bool handshakeDone() const { return m_handshakeDone; }
    std::string tlsError() const;
    std::string clientSubject() const;

private:
    void run(Handler handler, std::optional<TlsServerConfig> tls);
    int m_listen = -1;
    std::string m_port;
    std::thread m_thread;
    mutable std::mutex m_lock;
    std::string m_record;
    std::string m_tlsError;
    std::string m_clientSubject;
    std::atomic<bool> m_accepted{false};
    std::atomic<bool> m_handshakeDone{false};
};

// A port on 127.0.0.1 where nothing listens.
std::string closedPort();

// Certificates made at test time by make_test_certs.sh into a fresh directory:
// ca.pem (trusted CA), server.pem/server.key (localhost, 127.0.0.1),
// wrongname.pem/.key (signed by the CA, for another host), rogue.pem/.key
// (self-signed for localhost, 127.0.0.1), client.pem (certificate + key by the CA).
const std::string& testCertDir();

}  // namespace kivreg::test
