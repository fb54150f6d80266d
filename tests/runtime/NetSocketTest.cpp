#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

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

int openTo(const TestServer& server, const char* host = "127.0.0.1") {
    int fd = -1;
    EXPECT_EQ(netOpen(host, server.port().c_str(), kLongMs, &fd), NET_OK);
    return fd;
}

std::string readAll(int fd) {
    std::string got;
    char buf[4096];
    for (size_t n = 0; netRead(fd, buf, sizeof buf, kLongMs, &n) == NET_OK;) got.append(buf, n);
    return got;
}

TEST(NetSocket, BytesTravelBothWaysAndCloseIsSeenAsClosed) {
    TestServer server([](Peer& p) {
        p.readUntilClosed();
        p.send("pong and bye");
    });
    const int fd = openTo(server);
    size_t written = 0;
    EXPECT_EQ(netWrite(fd, "ping", 4, kLongMs, &written), NET_OK);
    EXPECT_EQ(written, 4u);
    shutdown(fd, SHUT_WR);
    EXPECT_EQ(readAll(fd), "pong and bye");
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
    const int fd = openTo(server, "localhost");
    EXPECT_EQ(readAll(fd), "x");
    netClose(fd);
}

TEST(NetSocket, OpenFailuresHaveTheirOwnCodes) {
    const std::string closed = test::closedPort();
    const struct {
        const char *host, *port;
        int rc;
    } cases[] = {
        {"no-such-host.invalid", "80", NET_ERR_RESOLVE},
        {"127.0.0.1", "no-such-service", NET_ERR_RESOLVE},
        {"127.0.0.1", closed.c_str(), NET_ERR_REFUSED},
        {"", "80", NET_ERR_INVALID},
    };
    for (const auto& c : cases) {
        int fd = 7;
        EXPECT_EQ(netOpen(c.host, c.port, kLongMs, &fd), c.rc) << c.host << ":" << c.port;
        EXPECT_EQ(fd, -1);
    }
}

TEST(NetSocket, ConnectReadAndWriteGiveUpAfterTheirTimeouts) {
    {
        // A listener whose queue is full drops further attempts: the handshake never completes.
        std::string port;
        const int listener = test::listenOnLoopback(port, 0);
        std::vector<int> fillers;
        int rc = NET_OK;
        for (int i = 0, h = -1; i < 8 && rc == NET_OK; ++i)
            if ((rc = netOpen("127.0.0.1", port.c_str(), kShortMs, &h)) == NET_OK)
                fillers.push_back(h);
        EXPECT_EQ(rc, NET_ERR_TIMEOUT);
        for (int h : fillers) netClose(h);
        ::close(listener);
    }
    std::atomic<bool> done{false};
    TestServer server([&done](Peer&) {  // holds the connection without reading or writing
        for (int i = 0; i < kLongMs / 10 && !done; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    });
    const int fd = openTo(server);
    char buf[16];
    size_t n = 99;
    EXPECT_EQ(netRead(fd, buf, sizeof buf, kShortMs, &n), NET_ERR_TIMEOUT);
    EXPECT_EQ(n, 0u);
    const std::string big(64u << 20, 'b');
    EXPECT_EQ(netWrite(fd, big.data(), big.size(), kShortMs, &n), NET_ERR_TIMEOUT);
    done = true;
    EXPECT_GT(n, 0u);
    EXPECT_LT(n, big.size());
    netClose(fd);
}

TEST(NetSocket, WritingToAPeerThatHasGoneIsAnErrorNotASignal) {
    TestServer server([](Peer& p) { p.abort(); });
    const int fd = openTo(server);
    server.join();
    const std::string big(16u << 20, 'x');
    size_t written = 0;
    EXPECT_EQ(netWrite(fd, big.data(), big.size(), kLongMs, &written), NET_ERR_CLOSED);
    netClose(fd);
}

}  // namespace
}  // namespace kivreg::rt
