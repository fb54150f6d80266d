#include <gtest/gtest.h>

#include "TestServer.h"
#include "http/IPConnection.h"
#include "runtime/NetRc.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

TEST(IPConnection, TimeoutsAreClampedToOneToFifteenMinutes) {
    const struct {
        int seconds, stored, returned;
    } cases[] = {
        {-5, -1, 60000},       {-1, -1, 60000},      {0, 60000, 60000},
        {59, 60000, 60000},    {60, 60000, 60000},   {420, 420000, 420000},
        {900, 900000, 900000}, {901, 900000, 60000}, {2000000000, 900000, 60000},
    };
    IPConnection c;
    for (const auto& k : cases) {
        EXPECT_EQ(c.setTimeOutConn(k.seconds), k.returned) << k.seconds;
        EXPECT_EQ(c.setTimeOutSend(k.seconds), k.returned) << k.seconds;
        EXPECT_EQ(c.setTimeOutRead(k.seconds), k.returned) << k.seconds;
        EXPECT_EQ(c.getTimeOutConn(), k.stored) << k.seconds;
        EXPECT_EQ(c.getTimeOutSend(), k.stored) << k.seconds;
        EXPECT_EQ(c.getTimeOutRead(), k.stored) << k.seconds;
    }
}

TEST(IPConnection, ReadsAndSkipsOnlyWhileOpen) {
    test::TestServer server([](test::Peer& p) { p.send("hello"); });
    IPConnection c;
    int rc = 0;
    char buf[8];
    EXPECT_EQ(c.read(buf, sizeof buf, &rc), 0);
    EXPECT_EQ(rc, rt::NET_ERR_INVALID);
    ASSERT_EQ(c.open(u"127.0.0.1", test::u16(server.port()).c_str(), false), rt::NET_OK);
    EXPECT_EQ(c.skip(2), 2);
    EXPECT_EQ(c.read(buf, sizeof buf, &rc), 3);
    EXPECT_EQ(std::string(buf, 3), "llo");
    EXPECT_EQ(c.close(), 1);
    EXPECT_EQ(c.write("x", 1, &rc), 0);
    EXPECT_EQ(rc, rt::NET_ERR_INVALID);
}

}  // namespace
}  // namespace kivreg
