#include <gtest/gtest.h>

#include <vector>

#include "FakeConnection.h"
#include "http/HttpRequest.h"
#include "http/URL.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::u16;
using test::u8;

struct Fixture {
    test::FakeConnection conn;
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
    int connect(IHttpRequest::TransferType t = IHttpRequest::UNCHUNKED,
                IHttpRequest::ConnectionType c = IHttpRequest::TRANSIENT) {
        return req->connect(&rc, t, c);
    }
};

TEST(HttpRequest, ConnectsToHostOrProxyAndWritesTheRequest) {
    struct Case {
        const char* url;
        const char16_t *proxy, *proxyPort, *proxyUser;
        const char *host, *port;
        bool secure;
        const char* requestLine;
    };
    const std::vector<Case> cases = {
        {"http://h:8080/kiv/ds", nullptr, nullptr, nullptr, "h", "8080", false,
         "POST /kiv/ds HTTP/1.1\r\n"},
        {"https://h/x", nullptr, nullptr, nullptr, "h", "443", true, "POST /x HTTP/1.1\r\n"},
        {"https://h:8443/x?q=1", nullptr, nullptr, nullptr, "h", "8443", true,
         "POST /x HTTP/1.1\r\n"},
        {"http://h/x", u"proxy", nullptr, nullptr, "proxy", "80", false,
         "POST http://h/x HTTP/1.1\r\n"},
        {"https://h/x", u"proxy", u"3128", u"pu", "proxy", "3128", true,
         "POST https://h/x HTTP/1.1\r\n"},
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
        ASSERT_EQ(f.connect(), 10) << c.url;
        EXPECT_EQ(u8(f.conn.host) + ":" + u8(f.conn.service), std::string(c.host) + ":" + c.port)
            << c.url;
        EXPECT_EQ(f.conn.tls, c.secure) << c.url;
        const std::string wire = std::string(c.requestLine) +
                                 "Host: h\r\nConnection: Close\r\nX-Name: M?ller ?\r\n" +
                                 (c.proxyUser ? "Proxy-Authorization: Basic cHU6cHA=\r\n" : "") +
                                 "Authorization: Basic dTpw\r\nContent-Length: 5\r\n\r\nhello";
        EXPECT_EQ(f.req->sendMessage(&f.rc), static_cast<int>(wire.size())) << c.url;
        EXPECT_EQ(f.rc, 0);
        EXPECT_EQ(f.conn.wire, wire) << c.url;
    }
}

TEST(HttpRequest, FailedConnects) {
    test::FakeConnection none;
    std::unique_ptr<IHttpRequest> bare;
    EXPECT_EQ(createIHttpRequest(nullptr, bare), -1);
    ASSERT_EQ(createIHttpRequest(&none, bare), 0);
    int rc = 0;
    EXPECT_EQ(bare->connect(&rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT), -1);  // no URL
    Fixture noHost("http:///nohost");
    EXPECT_EQ(noHost.connect(), -11);
    Fixture refused("http://h/x");
    refused.conn.openRc = rt::NET_ERR_REFUSED;
    EXPECT_EQ(refused.connect(), -11);
    EXPECT_EQ(refused.rc, rt::NET_ERR_REFUSED);
    EXPECT_EQ(none.opens + noHost.conn.opens, 0);
}

TEST(HttpRequest, LengthLineFollowsTheBodyOrTheArgument) {
    struct Case {
        const char* body;
        int announced;
        const char* lengthLine;
    };
    const std::vector<Case> cases = {
        {"", -1, ""},
        {"abc", -1, "\r\nContent-Length: 3"},
        {"abc", 12, "\r\nContent-Length: 12"},
        {"abc", 0, ""},
    };
    for (const Case& c : cases) {
        Fixture f("http://h/x");
        f.req->addHeaderline(
            u"Content-Length: 999");  // the caller's own line does not suppress ours
        f.req->setBody(std::string(c.body));
        f.connect();
        f.req->sendHeader(&f.rc, c.announced);
        EXPECT_EQ(f.rc, 0);
        EXPECT_EQ(f.conn.wire,
                  "GET /x HTTP/1.1\r\nHost: h\r\nConnection: Close\r\nContent-Length: 999\r\n"
                  "Authorization: Basic dTpw" +
                      std::string(c.lengthLine) + "\r\n\r\n")
            << c.body << " " << c.announced;
    }
}

TEST(HttpRequest, ChunkedPersistentTransfer) {
    Fixture f("http://h/x");
    f.req->setCmd(IHttpRequest::PUT);
    ASSERT_EQ(f.connect(IHttpRequest::CHUNKED, IHttpRequest::PERSISTENT), 10);
    f.req->sendHeader(&f.rc, -1);
    f.req->setBody(std::string("hello world"));
    f.req->sendChunk(&f.rc, u";part=1");
    f.req->setFooterline(u"");
    f.req->sendFooter(&f.rc);
    EXPECT_EQ(f.conn.wire,
              "PUT /x HTTP/1.1\r\nHost: h\r\nAuthorization: Basic dTpw\r\nTransfer-Encoding: "
              "chunked\r\n\r\n"
              "b;part=1\r\nhello world\r\n0\r\n\r\n");
}

}  // namespace
}  // namespace kivreg
