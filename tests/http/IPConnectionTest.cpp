#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "TestServer.h"
#include "http/IPConnection.h"
#include "http/Trace.h"
#include "runtime/NetRc.h"
#include "runtime/Tls.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::Peer;
using test::TestServer;

TEST(IPConnection, TimeoutsAreClampedToOneToFifteenMinutes) {
    struct Case {
        int seconds, stored, returned;
    };
    const std::vector<Case> cases = {
        {-5, -1, 60000}, {-1, -1, 60000},        {0, 60000, 60000},         {30, 60000, 60000},
        {59, 60000, 60000}, {60, 60000, 60000}, {420, 420000, 420000}, {900, 900000, 900000},
        {901, 900000, 60000}, {1000, 900000, 60000}, {2000000000, 900000, 60000},
    };
    IPConnection c;
    EXPECT_EQ(c.getTimeOutConn(), -1);
    for (const Case& k : cases) {
        EXPECT_EQ(c.setTimeOutConn(k.seconds), k.returned) << k.seconds;
        EXPECT_EQ(c.setTimeOutSend(k.seconds), k.returned) << k.seconds;
        EXPECT_EQ(c.setTimeOutRead(k.seconds), k.returned) << k.seconds;
        EXPECT_EQ(c.getTimeOutConn(), k.stored) << k.seconds;
        EXPECT_EQ(c.getTimeOutSend(), k.stored) << k.seconds;
        EXPECT_EQ(c.getTimeOutRead(), k.stored) << k.seconds;
    }
}

TEST(IPConnection, OpenCloseAndTheStateBetween) {
    TestServer server([](Peer& p) { p.send("hello"); });
    std::unique_ptr<IIPConnection> c;
    ASSERT_EQ(createIIPConnection(c), 0);
    EXPECT_EQ(c->close(), 0);
    int rc = 0;
    char buf[8];
    EXPECT_EQ(c->read(buf, sizeof buf, &rc), 0);
    EXPECT_EQ(rc, rt::NET_ERR_INVALID);

    const std::u16string port = test::u16(server.port());
    ASSERT_EQ(c->open(u"127.0.0.1", port.c_str(), false), rt::NET_OK);
    // Already open: the network is not asked again, so a bogus host does not matter.
    EXPECT_EQ(c->open(u"no-such-host.invalid", u"1", false), rt::NET_OK);
    EXPECT_EQ(c->skip(2), 2);
    EXPECT_EQ(c->read(buf, sizeof buf, &rc), 3);
    EXPECT_EQ(std::string(buf, 3), "llo");
    EXPECT_EQ(c->skip(0), 0);
    EXPECT_EQ(c->close(), 1);
    EXPECT_EQ(c->close(), 0);
    EXPECT_EQ(c->write("x", 1, &rc), 0);
    EXPECT_EQ(rc, rt::NET_ERR_INVALID);
}

TEST(IPConnection, RefusedTlsHandshakeWritesOpenSslsReasonToTheTrace) {
    test::TempDir dir;
    const char* old = std::getenv("SECUDIR");
    const std::string saved = old ? old : "";
    setenv("SECUDIR", dir.path().c_str(), 1);  // no trust file: the test CA is unknown
    const std::string certs = test::testCertDir();
    TestServer server([](Peer&) {}, test::TlsServerConfig{certs + "/server.pem", certs + "/server.key", "", 0});

    Trace& trace = Trace::instance();
    std::FILE* fp = std::fopen((dir / "trace.log").c_str(), "w+");
    ASSERT_NE(fp, nullptr);
    trace.setExternFP(fp);
    IPConnection c;
    const std::u16string port = test::u16(server.port());
    EXPECT_EQ(c.open(u"localhost", port.c_str(), true), rt::NET_ERR_TLS_VERIFY);
    EXPECT_FALSE(c.isSecure());
    EXPECT_EQ(c.close(), 0);
    trace.setExternFP(nullptr);
    trace.setVerbosity(4);
    std::fclose(fp);
    old ? setenv("SECUDIR", saved.c_str(), 1) : unsetenv("SECUDIR");

    const std::string text = test::readFile(dir / "trace.log");
    EXPECT_NE(text.find("IPConnection::open TLS handshake failed: -9 certificate verify failed: "
                        "unable to get local issuer certificate"),
              std::string::npos)
        << text;
}

}  // namespace
}  // namespace kivreg
