#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TestServer.h"
#include "runtime/NetSocket.h"
#include "runtime/Tls.h"
#include "testutil/TestUtil.h"

namespace kivreg::rt {
namespace {

namespace fs = std::filesystem;
using test::Peer;
using test::testCert;
using test::TestServer;

constexpr int kLongMs = 5000;

test::TlsServerConfig serverWith(const std::string& name, bool askForClient = false) {
    return {testCert(name + ".pem"), testCert(name + ".key"),
            askForClient ? testCert("ca.pem") : ""};
}

// A client with SECUDIR pointing at a fresh directory that holds the given trust and client files.
struct Client {
    test::TempDir secudir;
    test::ScopedEnv env{"SECUDIR", secudir.path().c_str()};
    int fd = -1;
    TlsContextPtr ctx;
    TlsSessionPtr session;
    std::string reason;

    explicit Client(bool trustTestCa = true, bool clientCert = false) {
        if (trustTestCa) fs::copy_file(testCert("ca.pem"), secudir / TLS_TRUST_FILE);
        if (clientCert) fs::copy_file(testCert("client.pem"), secudir / TLS_CLIENT_FILE);
    }
    ~Client() {
        session.reset();
        if (fd >= 0) netClose(fd);
    }
    // Connects to the server and runs the handshake; returns the TLS code.
    int connect(const TestServer& server, const std::string& host, int timeoutMs = kLongMs) {
        if (const int rc = tlsInit(ctx, reason); rc != NET_OK) return rc;
        EXPECT_EQ(netOpen("127.0.0.1", server.port().c_str(), kLongMs, &fd), NET_OK);
        return tlsSessionStart(*ctx, fd, host, timeoutMs, session, reason);
    }
};

TEST(Tls, TrustedServerConnectsByNameAndByAddress) {
    for (const char* host : {"localhost", "127.0.0.1"}) {
        TestServer server([](Peer& p) { p.readUntilClosed(); }, serverWith("server"));
        Client c;
        ASSERT_EQ(c.connect(server, host), NET_OK) << host << ": " << c.reason;
        size_t n = 0;
        EXPECT_EQ(tlsWrite(*c.session, "GET x\r\n\r\n", 9, kLongMs, &n), NET_OK);
        EXPECT_EQ(n, 9u);
        c.session.reset();  // close_notify ends the server's read
        server.join();
        EXPECT_EQ(server.received(), "GET x\r\n\r\n") << host;
    }
}

TEST(Tls, ServersThatMustNotBeTrustedAreRefusedWithTheVerifyReason) {
    const struct {
        const char *cert, *host;
        bool trustTestCa;
        const char* reason;
    } cases[] = {
        {"rogue", "localhost", true, "self-signed certificate"},
        {"wrongname", "localhost", true, "hostname mismatch"},
        {"wrongname", "127.0.0.1", true, "IP address mismatch"},
        {"server", "localhost", false, "unable to get local issuer certificate"},
    };
    for (const auto& k : cases) {
        TestServer server([](Peer&) {}, serverWith(k.cert));
        Client c(k.trustTestCa);
        EXPECT_EQ(c.connect(server, k.host), NET_ERR_TLS_VERIFY) << k.reason;
        EXPECT_NE(c.reason.find(std::string("certificate verify failed: ") + k.reason),
                  std::string::npos)
            << c.reason;
        EXPECT_FALSE(c.session);
        server.join();
        EXPECT_FALSE(server.handshakeDone) << k.reason;
    }
}

TEST(Tls, ClientCertificateIsPresentedWhenTheServerAsksForIt) {
    TestServer server(
        [](Peer& p) {
            p.readRequest();
            p.send("answer");
        },
        serverWith("server", true));
    Client c(true, true);
    ASSERT_EQ(c.connect(server, "localhost"), NET_OK) << c.reason;
    size_t n = 0;
    ASSERT_EQ(tlsWrite(*c.session, "HELLO\r\n\r\n", 9, kLongMs, &n), NET_OK);
    char buf[64];
    EXPECT_EQ(tlsRead(*c.session, buf, sizeof buf, kLongMs, &n), NET_OK);
    server.join();
    EXPECT_TRUE(server.handshakeDone);
    EXPECT_NE(server.clientSubject.find("CN=kivreg test client"), std::string::npos)
        << server.clientSubject;
}

TEST(Tls, UnreadableCredentialFilesFailTheSetUp) {
    for (const char* file : {TLS_TRUST_FILE, TLS_CLIENT_FILE}) {
        Client c(false);
        test::writeFile(c.secudir / file, "not a certificate\n");
        EXPECT_EQ(tlsInit(c.ctx, c.reason), NET_ERR_TLS) << file;
        EXPECT_NE(c.reason.find(file), std::string::npos) << c.reason;
    }
}

TEST(Tls, HandshakeWithAServerThatNeverSpeaksTimesOut) {
    TestServer server([](Peer& p) { p.readUntilClosed(); });  // plain TCP: no ServerHello
    Client c;
    EXPECT_EQ(c.connect(server, "localhost", 200), NET_ERR_TIMEOUT);
    EXPECT_NE(c.reason.find("timed out"), std::string::npos) << c.reason;
}

TEST(Tls, WritingToAPeerThatHasGoneIsAnErrorNotASignal) {
    TestServer server([](Peer& p) { p.abort(); }, serverWith("server"));
    Client c;
    ASSERT_EQ(c.connect(server, "localhost"), NET_OK) << c.reason;
    server.join();
    const std::string big(16u << 20, 'x');
    size_t n = 0;
    EXPECT_EQ(tlsWrite(*c.session, big.data(), big.size(), kLongMs, &n), NET_ERR_CLOSED);
}

}  // namespace
}  // namespace kivreg::rt
