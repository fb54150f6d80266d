#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <openssl/err.h>
#include <unistd.h>

#include "TestServer.h"
#include "runtime/NetSocket.h"
#include "runtime/Tls.h"
#include "support/Status.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

using namespace rt;
namespace fs = std::filesystem;

constexpr int kShortMs = 200;
constexpr int kLongMs = 5000;

TEST(NetSocket, OpenFailuresHaveTheirOwnCodesAndSayWhy) {
    const std::string closed = test::closedPort();
    const struct {
        const char *host, *port;
        int rc;
        std::string message;  // its start: the resolver's words depend on the network
    } cases[] = {
        {"no-such-host.invalid", "80", NET_ERR_RESOLVE,
         "Could not resolve host no-such-host.invalid: "},
        {"127.0.0.1", "no-such-service", NET_ERR_RESOLVE, "Could not resolve host 127.0.0.1: "},
        {"127.0.0.1", closed.c_str(), NET_ERR_REFUSED,
         "Could not connect to 127.0.0.1 port " + closed + ": Connection refused"},
        {"::1", closed.c_str(), NET_ERR_REFUSED,
         "Could not connect to [::1] port " + closed + ": Connection refused"},
        {"", "80", NET_ERR_INVALID, ""},
    };
    for (const auto& c : cases) {
        int fd = 7;
        Status status;
        EXPECT_EQ(netOpen(c.host, c.port, kLongMs, &fd, &status), c.rc) << c.host << ":" << c.port;
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(status.message().substr(0, c.message.size()), c.message);
    }
}

TEST(NetSocket, ConnectReadAndWriteGiveUpAfterTheirTimeouts) {
    {
        // A listener whose queue is full drops further attempts: the handshake never completes.
        std::string port;
        const int listener = test::listenOnLoopback(port, 0);
        std::vector<int> fillers;
        int rc = NET_OK;
        Status status;
        for (int i = 0, h = -1; i < 8 && rc == NET_OK; ++i)
            if ((rc = netOpen("127.0.0.1", port.c_str(), kShortMs, &h, &status)) == NET_OK)
                fillers.push_back(h);
        EXPECT_EQ(rc, NET_ERR_TIMEOUT);
        EXPECT_EQ(status.message(), "Timed out after 0.2 s connecting to 127.0.0.1 port " + port);
        for (int h : fillers) netClose(h);
        ::close(listener);
    }
    std::atomic<bool> done{false};
    TestServer server([&done](Peer&) {  // holds the connection without reading or writing
        for (int i = 0; i < kLongMs / 10 && !done; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    });
    int fd = -1;
    ASSERT_EQ(netOpen("127.0.0.1", server.port().c_str(), kLongMs, &fd), NET_OK);
    char buf[16];
    size_t n = 99;
    Status status;
    EXPECT_EQ(netRead(fd, buf, sizeof buf, kShortMs, &n, &status), NET_ERR_TIMEOUT);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(status.reason, "timed out after 0.2 s");
    const std::string big(64u << 20, 'b');
    EXPECT_EQ(netWrite(fd, big.data(), big.size(), kShortMs, &n), NET_ERR_TIMEOUT);
    done = true;
    EXPECT_GT(n, 0u);
    EXPECT_LT(n, big.size());
    netClose(fd);
}

test::TlsServerConfig serverWith(const std::string& name, bool askForClient = false) {
    return {testCert(name + ".pem"), testCert(name + ".key"),
            askForClient ? testCert("ca.pem") : ""};
}

// A client whose credential directory holds the given trust and client files.
struct Client {
    test::TempDir secudir;
    int fd = -1;
    TlsContextPtr ctx;
    TlsSessionPtr session;
    Status status;

    explicit Client(bool trustTestCa = true, bool clientCert = false) {
        if (trustTestCa) fs::copy_file(testCert("ca.pem"), secudir / TLS_TRUST_FILE);
        if (clientCert) fs::copy_file(testCert("client.pem"), secudir / TLS_CLIENT_FILE);
    }
    ~Client() {
        session.reset();
        if (fd >= 0) netClose(fd);
    }
    // Connects to `host` (each of its addresses in turn: "localhost" is often ::1 first, where
    // nothing listens) and runs the handshake; returns the TLS code.
    int connect(const TestServer& server, const std::string& host, int timeoutMs = kLongMs) {
        if (const int rc = tlsInit(ctx, secudir.path(), status); rc != NET_OK) return rc;
        EXPECT_EQ(netOpen(host.c_str(), server.port().c_str(), kLongMs, &fd), NET_OK);
        return tlsSessionStart(*ctx, fd, host, timeoutMs, session, status);
    }
};

TEST(Tls, TrustedServerByNameOrAddressAndWithAClientCertificate) {
    const struct {
        const char* host;
        bool clientCert;  // the server asks for one and the client has it
        bool noStdin;     // the socket is descriptor 0, as in a host that closed it
    } cases[] = {
        {"localhost", false, false}, {"127.0.0.1", false, true}, {"localhost", true, false}};
    for (const auto& k : cases) {
        TestServer server([](Peer& p) { p.readRequest(), p.send("answer"); },
                          serverWith("server", k.clientCert));
        std::optional<test::StdinClosed> noStdin;  // given back after the client's socket
        if (k.noStdin) noStdin.emplace();
        Client c(true, k.clientCert);
        ASSERT_EQ(c.connect(server, k.host), NET_OK) << k.host << ": " << c.status.message();
        EXPECT_EQ(c.fd == 0, k.noStdin);
        // Large enough to fill the socket's buffers, so that the write waits;
        // a host's own OpenSSL calls may leave errors queued, which must not
        // be taken for this session's.
        const std::string request =
            "POST x\r\nContent-Length: 4194304\r\n\r\n" + std::string(4194304, 'b');
        size_t n = 0;
        ERR_raise(ERR_LIB_USER, 1);
        EXPECT_EQ(tlsWrite(*c.session, request.data(), request.size(), kLongMs, &n), NET_OK);
        EXPECT_EQ(n, request.size());
        char buf[64];
        ERR_raise(ERR_LIB_USER, 1);
        ASSERT_EQ(tlsRead(*c.session, buf, sizeof buf, kLongMs, &n), NET_OK) << k.host;
        EXPECT_EQ(std::string(buf, n), "answer");
        server.join();
        EXPECT_EQ(server.received(), request) << k.host;
        EXPECT_EQ(server.clientSubject.find("CN=kivreg test client") != std::string::npos,
                  k.clientCert)
            << server.clientSubject;
    }
}

TEST(Tls, ServersThatMustNotBeTrustedAreRefusedWithTheVerifyReason) {
    const std::string verifyFailed = "TLS: certificate verify failed for localhost: ";
    const std::string byCa = ", issuer CN=kivreg test CA, valid from ";
    const struct {
        const char *cert, *host;
        bool trustTestCa;
        std::string message;  // its start; the dates follow
    } cases[] = {
        {"rogue", "localhost", true,
         verifyFailed + "self-signed certificate (subject CN=localhost, issuer CN=localhost, "
                        "valid from "},
        {"expired", "localhost", true,
         verifyFailed + "certificate has expired (subject CN=localhost" + byCa},
        {"server", "localhost", false,
         verifyFailed + "unable to get local issuer certificate (subject CN=localhost" + byCa},
        {"wrongname", "localhost", true,
         "TLS: host name mismatch for localhost: the certificate is for wrong.example"},
        {"wrongname", "127.0.0.1", true,
         "TLS: host name mismatch for 127.0.0.1: the certificate is for wrong.example"},
    };
    for (const auto& k : cases) {
        TestServer server([](Peer&) {}, serverWith(k.cert));
        Client c(k.trustTestCa);
        EXPECT_EQ(c.connect(server, k.host), NET_ERR_TLS_VERIFY) << k.message;
        EXPECT_EQ(c.status.message().substr(0, k.message.size()), k.message);
        EXPECT_EQ(c.status.step, Status::Step::Tls);
        EXPECT_FALSE(c.session);
        server.join();
        EXPECT_FALSE(server.handshakeDone) << k.message;
    }
}

TEST(Tls, HandshakeWithAServerThatNeverSpeaksTimesOut) {
    TestServer server([](Peer& p) { p.readRequest(); });  // plain TCP: no ServerHello
    Client c;
    EXPECT_EQ(c.connect(server, "localhost", kShortMs), NET_ERR_TIMEOUT);
    EXPECT_EQ(c.status.message(), "Timed out after 0.2 s in the TLS handshake with localhost");
}

TEST(NetAndTls, APeerThatHasGoneIsAnErrorNotASignal) {
    const std::string big(16u << 20, 'x');
    // The server resets the connection only after the client has spoken: a
    // reset that overtook the connect would make the open itself fail.
    const auto resetAfterHello = [](Peer& p) {
        p.readRequest();
        p.abort();
    };
    size_t n = 0;
    {
        TestServer server(resetAfterHello);
        int fd = -1;
        ASSERT_EQ(netOpen("127.0.0.1", server.port().c_str(), kLongMs, &fd), NET_OK);
        ASSERT_EQ(netWrite(fd, "\r\n\r\n", 4, kLongMs, &n), NET_OK);
        server.join();
        EXPECT_EQ(netWrite(fd, big.data(), big.size(), kLongMs, &n), NET_ERR_CLOSED);
        netClose(fd);
    }
    TestServer server(resetAfterHello, serverWith("server"));
    Client c;
    ASSERT_EQ(c.connect(server, "localhost"), NET_OK) << c.status.message();
    ASSERT_EQ(tlsWrite(*c.session, "\r\n\r\n", 4, kLongMs, &n), NET_OK);
    server.join();
    // The reset is reported as such, not waited out as an end of stream.
    char buf[16];
    EXPECT_EQ(tlsRead(*c.session, buf, sizeof buf, kLongMs, &n), NET_ERR_CLOSED);
    EXPECT_EQ(tlsLastReason(*c.session), "socket: Connection reset by peer");
    EXPECT_EQ(tlsWrite(*c.session, big.data(), big.size(), kLongMs, &n), NET_ERR_CLOSED);
}

}  // namespace
}  // namespace kivreg::test
