#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <openssl/ssl.h>

#include "TestServer.h"
#include "runtime/NetSocket.h"
#include "runtime/Tls.h"
#include "testutil/TestUtil.h"

namespace kivreg::rt {
namespace {

namespace fs = std::filesystem;
using test::Peer;
using test::TestServer;
using test::TlsServerConfig;

constexpr int kShortMs = 200;
constexpr int kLongMs = 5000;

// Points SECUDIR at a fresh directory for the test and restores it after.
class TlsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* old = std::getenv("SECUDIR")) m_saved = old;
        setenv("SECUDIR", m_secudir.path().c_str(), 1);
    }
    void TearDown() override {
        if (m_saved)
            setenv("SECUDIR", m_saved->c_str(), 1);
        else
            unsetenv("SECUDIR");
    }
    static std::string cert(const std::string& name) { return test::testCertDir() + "/" + name; }
    void install(const std::string& from, const char* as) {
        fs::copy_file(cert(from), m_secudir / as, fs::copy_options::overwrite_existing);
    }
    void trustTestCa() { install("ca.pem", TLS_TRUST_FILE); }
    static TlsServerConfig serverWith(const std::string& name) { return {cert(name + ".pem"), cert(name + ".key"), "", 0}; }

    struct Client {
        int fd = -1;
        TlsContextPtr ctx;
        TlsSessionPtr session;
        std::string reason;
        ~Client() {
            session.reset();
            if (fd >= 0) netClose(fd);
        }
    };
    // Connects to the server and runs the handshake; returns the TLS code.
    int connect(Client& c, const TestServer& server, const std::string& host, int timeoutMs = kLongMs) {
        if (const int rc = tlsInit(c.ctx, c.reason); rc != NET_OK) return rc;
        EXPECT_EQ(netOpen("127.0.0.1", server.port().c_str(), kLongMs, &c.fd), NET_OK);
        return tlsSessionStart(*c.ctx, c.fd, host, timeoutMs, c.session, c.reason);
    }

    test::TempDir m_secudir;
    std::optional<std::string> m_saved;
};

void answerOnce(Peer& p) {
    std::string in;
    in = p.readRequest();
    p.send("answer to " + in.substr(0, in.find('\r')));
}

TEST_F(TlsTest, TrustedServerConnectsByNameAndByAddress) {
    trustTestCa();
    for (const char* host : {"localhost", "127.0.0.1"}) {
        TestServer server([](Peer& p) { p.readUntilClosed(kLongMs); },
                          serverWith("server"));
        Client c;
        ASSERT_EQ(connect(c, server, host), NET_OK) << host << ": " << c.reason;
        EXPECT_NE(tlsDescribe(*c.session).find("TLSv1."), std::string::npos);
        size_t n = 0;
        EXPECT_EQ(tlsWrite(*c.session, "GET x\r\n\r\n", 9, kLongMs, &n), NET_OK);
        EXPECT_EQ(n, 9u);
        c.session.reset();  // close_notify ends the server's read
        netClose(c.fd);
        c.fd = -1;
        server.join();
        EXPECT_EQ(server.received(), "GET x\r\n\r\n") << host;
    }
}

TEST_F(TlsTest, ServersThatMustNotBeTrustedAreRefusedWithTheVerifyReason) {
    struct Case {
        const char* name;
        const char* cert;
        const char* host;
        bool trustFile;
        const char* reason;
    };
    const std::vector<Case> cases = {
        {"self-signed", "rogue", "localhost", true, "self-signed certificate"},
        {"other host name", "wrongname", "localhost", true, "hostname mismatch"},
        {"other address", "wrongname", "127.0.0.1", true, "IP address mismatch"},
        {"CA not trusted", "server", "localhost", false, "unable to get local issuer certificate"},
    };
    for (const Case& k : cases) {
        fs::remove(m_secudir.path() / TLS_TRUST_FILE);
        if (k.trustFile) trustTestCa();
        TestServer server([](Peer&) {}, serverWith(k.cert));
        Client c;
        EXPECT_EQ(connect(c, server, k.host), NET_ERR_TLS_VERIFY) << k.name;
        EXPECT_NE(c.reason.find("certificate verify failed: "), std::string::npos) << k.name << ": " << c.reason;
        EXPECT_NE(c.reason.find(k.reason), std::string::npos) << k.name << ": " << c.reason;
        EXPECT_FALSE(c.session);
        server.join();
        EXPECT_FALSE(server.handshakeDone()) << k.name;
    }
}

TEST_F(TlsTest, ClientCertificateIsPresentedWhenTheServerAsksForIt) {
    trustTestCa();
    install("client.pem", TLS_CLIENT_FILE);
    TlsServerConfig config = serverWith("server");
    config.clientCaFile = cert("ca.pem");
    TestServer server(answerOnce, config);
    Client c;
    ASSERT_EQ(connect(c, server, "localhost"), NET_OK) << c.reason;
    size_t n = 0;
    ASSERT_EQ(tlsWrite(*c.session, "HELLO\r\n\r\n", 9, kLongMs, &n), NET_OK);
    char buf[64];
    EXPECT_EQ(tlsRead(*c.session, buf, sizeof buf, kLongMs, &n), NET_OK);
    server.join();
    EXPECT_TRUE(server.handshakeDone()) << server.tlsError();
    EXPECT_NE(server.clientSubject().find("CN=kivreg test client"), std::string::npos) << server.clientSubject();
}

TEST_F(TlsTest, WithoutClientCertificateAServerThatRequiresOneRefusesUs) {
    trustTestCa();
    TlsServerConfig config = serverWith("server");
    config.clientCaFile = cert("ca.pem");
    TestServer server(answerOnce, config);
    Client c;
    // With TLS 1.3 the refusal may arrive only after our side of the
    // handshake has finished; then the first read reports it.
    int rc = connect(c, server, "localhost");
    if (rc == NET_OK) {
        size_t n = 0;
        tlsWrite(*c.session, "HELLO\r\n\r\n", 9, kLongMs, &n);
        char buf[64];
        rc = tlsRead(*c.session, buf, sizeof buf, kLongMs, &n);
    }
    EXPECT_NE(rc, NET_OK);
    server.join();
    EXPECT_FALSE(server.handshakeDone());
}

TEST_F(TlsTest, ProtocolsBelowTls12AreRefused) {
    trustTestCa();
    TlsServerConfig config = serverWith("server");
    config.maxVersion = TLS1_1_VERSION;
    TestServer server([](Peer&) {}, config);
    Client c;
    EXPECT_EQ(connect(c, server, "localhost"), NET_ERR_TLS);
    EXPECT_FALSE(c.reason.empty());
}

TEST_F(TlsTest, UnreadableCredentialFilesFailTheSetUp) {
    for (const char* file : {TLS_TRUST_FILE, TLS_CLIENT_FILE}) {
        fs::remove(m_secudir.path() / TLS_TRUST_FILE);
        fs::remove(m_secudir.path() / TLS_CLIENT_FILE);
        test::writeFile(m_secudir.path() / file, "not a certificate\n");
        TlsContextPtr ctx;
        std::string reason;
        EXPECT_EQ(tlsInit(ctx, reason), NET_ERR_TLS) << file;
        EXPECT_NE(reason.find(file), std::string::npos) << reason;
        EXPECT_FALSE(ctx);
    }
}

TEST_F(TlsTest, HandshakeWithAServerThatNeverSpeaksTimesOut) {
    TestServer server([](Peer& p) { p.readUntilClosed(kLongMs); });  // plain TCP: no ServerHello
    Client c;
    EXPECT_EQ(connect(c, server, "localhost", kShortMs), NET_ERR_TIMEOUT);
    EXPECT_NE(c.reason.find("timed out"), std::string::npos) << c.reason;
}

TEST_F(TlsTest, WritingToAPeerThatHasGoneIsAnErrorNotASignal) {
    trustTestCa();
    TestServer server([](Peer& p) { p.abort(); }, serverWith("server"));
    Client c;
    ASSERT_EQ(connect(c, server, "localhost"), NET_OK) << c.reason;
    server.join();
    const std::string big(16u << 20, 'x');
    size_t n = 0;
    EXPECT_EQ(tlsWrite(*c.session, big.data(), big.size(), kLongMs, &n), NET_ERR_CLOSED);
    EXPECT_LT(n, big.size());
}

}  // namespace
}  // namespace kivreg::rt
