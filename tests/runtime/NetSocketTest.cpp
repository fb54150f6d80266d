#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "TestServer.h"
#include "runtime/NetSocket.h"

namespace kivreg::rt {
namespace {

using test::Peer;
using test::TestServer;

constexpr int kShortMs = 200;
constexpr int kLongMs = 5000;

std::string readAll(int fd, size_t want) {
    std::string got;
    char buf[4096];
    while (got.size() < want) {
        size_t n = 0;
        if (netRead(fd, buf, sizeof buf, kLongMs, &n) != NET_OK) break;
        got.append(buf, n);
    }
    return got;
}

TEST(NetSocket, BytesTravelBothWaysAndCloseIsSeenAsClosed) {
    TestServer server([](Peer& p) {
        std::string in;
        while (in.size() < 4) in += p.readUntilClosed(kLongMs).substr(0, 4);
        p.send("pong and bye");
    });
    int fd = -1;
    ASSERT_EQ(netOpen("127.0.0.1", server.port().c_str(), kLongMs, &fd), NET_OK);
    size_t written = 0;
    EXPECT_EQ(netWrite(fd, "ping", 4, kLongMs, &written), NET_OK);
    EXPECT_EQ(written, 4u);
    shutdown(fd, SHUT_WR);
    EXPECT_EQ(readAll(fd, 12), "pong and bye");
    char c;
    size_t n = 1;
    EXPECT_EQ(netRead(fd, &c, 1, kLongMs, &n), NET_ERR_CLOSED);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(netClose(fd), NET_OK);
    server.join();
    EXPECT_EQ(server.received(), "ping");
}

TEST(NetSocket, EachAddressOfANameIsTriedInTurn) {
    // "localhost" usually resolves to ::1 first, where nothing listens; the
    // IPv4 address behind it must still be reached.
    TestServer server([](Peer& p) { p.send("x"); });
    int fd = -1;
    ASSERT_EQ(netOpen("localhost", server.port().c_str(), kLongMs, &fd), NET_OK);
    EXPECT_EQ(readAll(fd, 1), "x");
    netClose(fd);
}

TEST(NetSocket, OpenFailuresHaveTheirOwnCodes) {
    const std::string closed = test::closedPort();
    struct Case {
        const char* name;
        const char* host;
        std::string port;
        int rc;
    };
    const std::vector<Case> cases = {
        {"unresolvable", "no-such-host.invalid", "80", NET_ERR_RESOLVE},
        {"unknown service", "127.0.0.1", "no-such-service", NET_ERR_RESOLVE},
        {"closed port", "127.0.0.1", closed, NET_ERR_REFUSED},
        {"empty host", "", "80", NET_ERR_INVALID},
    };
    for (const Case& c : cases) {
        int fd = 7;
        EXPECT_EQ(netOpen(c.host, c.port.c_str(), kLongMs, &fd), c.rc) << c.name;
        EXPECT_EQ(fd, -1) << c.name;
    }
}

TEST(NetSocket, ConnectGivesUpAfterTheTimeout) {
    // A listener whose queue is full drops further connection attempts, so
    // the handshake never completes.
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(fd, 0), 0);
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    const std::string port = std::to_string(ntohs(addr.sin_port));
    std::vector<int> fillers;
    int rc = NET_OK;
    for (int i = 0; i < 8 && rc == NET_OK; ++i) {
        int h = -1;
        rc = netOpen("127.0.0.1", port.c_str(), kShortMs, &h);
        if (rc == NET_OK) fillers.push_back(h);
    }
    EXPECT_EQ(rc, NET_ERR_TIMEOUT);
    for (int h : fillers) netClose(h);
    ::close(fd);
}

TEST(NetSocket, ReadGivesUpAfterTheTimeout) {
    TestServer server([](Peer& p) { p.readUntilClosed(kLongMs); });
    int fd = -1;
    ASSERT_EQ(netOpen("127.0.0.1", server.port().c_str(), kLongMs, &fd), NET_OK);
    char buf[16];
    size_t n = 99;
    EXPECT_EQ(netRead(fd, buf, sizeof buf, kShortMs, &n), NET_ERR_TIMEOUT);
    EXPECT_EQ(n, 0u);
    netClose(fd);
}

TEST(NetSocket, WriteToAPeerThatDoesNotReadGivesUpAfterTheTimeout) {
    std::atomic<bool> clientDone{false};
    TestServer server([&clientDone](Peer&) {
        // Holds the connection without reading until the client has given up.
        for (int i = 0; i < kLongMs / 10 && !clientDone; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    });
    int fd = -1;
    ASSERT_EQ(netOpen("127.0.0.1", server.port().c_str(), kLongMs, &fd), NET_OK);
    const std::string big(64u << 20, 'b');
    size_t written = 0;
    EXPECT_EQ(netWrite(fd, big.data(), big.size(), kShortMs, &written), NET_ERR_TIMEOUT);
    clientDone = true;
    EXPECT_GT(written, 0u);
    EXPECT_LT(written, big.size());
    netClose(fd);
}

TEST(NetSocket, WritingToAPeerThatHasGoneIsAnErrorNotASignal) {
    TestServer server([](Peer& p) { p.abort(); });
    int fd = -1;
    ASSERT_EQ(netOpen("127.0.0.1", server.port().c_str(), kLongMs, &fd), NET_OK);
    server.join();
    const std::string big(16u << 20, 'x');
    size_t written = 0;
    EXPECT_EQ(netWrite(fd, big.data(), big.size(), kLongMs, &written), NET_ERR_CLOSED);
    EXPECT_LT(written, big.size());
    netClose(fd);
}

}  // namespace
}  // namespace kivreg::rt
