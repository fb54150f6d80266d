#include <gtest/gtest.h>

#include <vector>

#include "http/HttpRequest.h"
#include "http/URL.h"
#include "runtime/NetRc.h"
#include "testutil/InertConnection.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::u16;
using test::u8;

// Keeps what is written to it and where it was opened, for checking request bytes without a
// network.
class FakeConnection final : public test::InertConnection {
public:
    int open(const char16_t* h, const char16_t* s, bool secure) override {
        return host = h, service = s, tls = secure, rt::NET_OK;
    }
    int openTunnel(const char16_t* h, const char16_t* s, const char16_t* to, const char16_t* toPort,
                   std::string_view credentials) override {
        tunnel = u8(to) + ":" + u8(toPort) + " " + std::string(credentials);
        return open(h, s, true);
    }
    int write(const void* data, int size, int* rc) override {
        wire.append(static_cast<const char*>(data), static_cast<size_t>(size));
        return *rc = rt::NET_OK, size;
    }
    std::u16string host, service;
    bool tls = false;
    std::string tunnel;  // "host:port credentials" asked of the proxy
    std::string wire;
};

struct Fixture {
    FakeConnection conn;
    URL url;
    std::unique_ptr<IHttpRequest> req;
    int rc = -99;

    explicit Fixture(const char* text) {
        EXPECT_EQ(createIHttpRequest(&conn, req), 0);
        url.setHuser(u"u");
        url.setHpass(u"p");
        url.setUrl(u16(std::string(text)).c_str());
        req->setIURL(url);
    }
};

TEST(HttpRequest, ConnectsToHostOrProxyAndWritesTheRequest) {
    struct Case {
        const char* url;
        const char16_t *proxy, *proxyPort, *proxyUser;
        const char *hostPort, *requestLine;
        bool secure;
        const char* tunnel;
    };
    // Through a proxy, plain HTTP names the whole URL and authenticates to the
    // proxy in the request; HTTPS asks for a tunnel and then speaks as directly.
    const std::vector<Case> cases = {
        {"http://h:8080/kiv/ds", nullptr, nullptr, nullptr, "h:8080", "POST /kiv/ds", false, ""},
        {"https://h/x", nullptr, nullptr, nullptr, "h:443", "POST /x", true, ""},
        {"https://h:8443/x?q=1", nullptr, nullptr, nullptr, "h:8443", "POST /x", true, ""},
        {"http://h/x", u"proxy", nullptr, u"pu", "proxy:80", "POST http://h/x", false, ""},
        {"https://h/x", u"proxy", u"3128", u"pu", "proxy:3128", "POST /x", true, "h:443 cHU6cHA="},
        {"https://h:8443/x", u"proxy", u"3128", nullptr, "proxy:3128", "POST /x", true, "h:8443 "},
    };
    for (const Case& c : cases) {
        Fixture f(c.url);
        f.url.setProxy(c.proxy);
        f.url.setPport(c.proxyPort);
        f.url.setPuser(c.proxyUser);
        f.url.setPpass(c.proxyUser ? u"pp" : nullptr);
        f.req->setCmd(IHttpRequest::POST);
        f.req->addHeaderline(u"X-Name: M\u00fcller \u20ac");  // 7-bit on the wire
        f.req->setBody(std::string("hello"));
        ASSERT_EQ(f.req->connect(&f.rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT), 10);
        EXPECT_EQ(u8(f.conn.host) + ":" + u8(f.conn.service), c.hostPort) << c.url;
        EXPECT_EQ(f.conn.tls, c.secure) << c.url;
        EXPECT_EQ(f.conn.tunnel, c.tunnel) << c.url;
        const std::string wire =
            std::string(c.requestLine) +
            " HTTP/1.1\r\nHost: h\r\nConnection: Close\r\nX-Name: M?ller ?\r\n" +
            (c.proxyUser && !c.secure ? "Proxy-Authorization: Basic cHU6cHA=\r\n" : "") +
            "Authorization: Basic dTpw\r\nContent-Length: 5\r\n\r\nhello";
        EXPECT_EQ(f.req->sendMessage(&f.rc), static_cast<int>(wire.size())) << c.url;
        EXPECT_EQ(f.rc, 0);
        EXPECT_EQ(f.conn.wire, wire) << c.url;
    }
}

TEST(HttpRequest, BodyGoesOutInPiecesWhenProgressIsAsked) {
    Fixture f("http://h/x");
    const size_t step = IHttpRequest::PROGRESS_STEP, total = 2 * step + 7;
    std::string body(total, 'b');
    body.back() = 'e';
    f.req->setBody(std::string(body));
    std::vector<std::pair<size_t, size_t>> seen;
    f.req->setProgress([&](size_t written, size_t all) { seen.emplace_back(written, all); });
    f.req->sendMessage(&f.rc);
    EXPECT_EQ(f.rc, 0);
    EXPECT_TRUE(f.conn.wire.ends_with("\r\n\r\n" + body));
    EXPECT_EQ(seen, (std::vector<std::pair<size_t, size_t>>{
                        {step, total}, {2 * step, total}, {total, total}}));
}

TEST(HttpRequest, ChunkedPersistentTransfer) {
    Fixture f("http://h/x");
    f.req->setCmd(IHttpRequest::PUT);
    ASSERT_EQ(f.req->connect(&f.rc, IHttpRequest::CHUNKED, IHttpRequest::PERSISTENT), 10);
    f.req->sendHeader(&f.rc, -1);
    f.req->setBody(std::string("hello world"));
    f.req->sendChunk(&f.rc, u";part=1");
    f.req->setFooterline(u"");
    f.req->sendFooter(&f.rc);
    EXPECT_EQ(f.conn.wire,
              "PUT /x HTTP/1.1\r\nHost: h\r\nAuthorization: Basic dTpw\r\n"
              "Transfer-Encoding: chunked\r\n\r\nb;part=1\r\nhello world\r\n0\r\n\r\n");
}

}  // namespace
}  // namespace kivreg
