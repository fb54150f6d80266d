#pragma once
// An in-process server on 127.0.0.1 for transport tests: a thread accepts one
// connection (plain or TLS), runs a scripted handler on it and records every
// byte the handler read. Every wait is bounded; the destructor joins.

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

typedef struct ssl_st SSL;

namespace kivreg::test {

constexpr int kServerWaitMs = 5000;

// PEM files; with clientCa set, a client certificate from that CA is required.
struct TlsServerConfig {
    std::string cert, key, clientCa;
};

class TestServer;

// The server side of the accepted connection.
class Peer {
public:
    // The header and as many body bytes as its Content-Length says (less when the client
    // stops), or at most `bodyBytes` of them.
    std::string readRequest(size_t bodyBytes = SIZE_MAX);
    bool send(std::string_view bytes);  // false when the client has gone
    void abort();                       // closes with a reset instead of an orderly close

private:
    friend class TestServer;
    bool readSome(std::string& into, int timeoutMs);
    int m_fd = -1;
    SSL* m_ssl = nullptr;
    TestServer* m_server = nullptr;
};

class TestServer {
public:
    using Handler = std::function<void(Peer&)>;
    explicit TestServer(Handler handler, std::optional<TlsServerConfig> tls = std::nullopt);
    ~TestServer();
    const std::string& port() const { return m_port; }
    void join();
    std::string received() const;
    // Valid after join(): whether the TLS handshake completed, and the client certificate's
    // subject.
    bool handshakeDone = false;
    std::string clientSubject;

private:
    friend class Peer;
    void run(Handler handler, std::optional<TlsServerConfig> tls);
    int m_listen = -1;
    std::string m_port;
    std::thread m_thread;
    mutable std::mutex m_lock;
    std::string m_record;
};

}  // namespace kivreg::test
