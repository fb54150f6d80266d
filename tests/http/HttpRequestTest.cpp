#include <gtest/gtest.h>

#include <vector>

#include "FakeConnection.h"
#include "http/HttpRequest.h"
#include "http/URL.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::FakeConnection;
using test::u16;
using test::u8;

struct Fixture {
    FakeConnection conn;
    URL url;
    std::unique_ptr<IHttpRequest> req;
    HttpRequest& impl() { return static_cast<HttpRequest&>(*req); }

    explicit Fixture(const char* text, const char16_t* user = u"u", const char16_t* pass = u"p") {
        EXPECT_EQ(createIHttpRequest(&conn, req), 0);
        url.setHuser(user);
        url.setHpass(pass);
        url.setUrl(u16(std::string(text)).c_str());
        req->setIURL(url);
    }
};

TEST(HttpRequest, PostOfAFiveByteBodyHasTheExactLayout) {
    Fixture f("http://h:8080/kiv/ds");
    f.req->setCmd(IHttpRequest::POST);
    f.req->addHeaderline(u"X-Caller: 1");
    const unsigned char body[] = {'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(f.req->setBody(body, 5), 5);
    int rc = -99;
    EXPECT_EQ(f.req->connect(&rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT), 10);
    EXPECT_EQ(rc, 0);
    const std::string expected =
        "POST /kiv/ds HTTP/1.1\r\n"
        "Host: h\r\n"
        "Connection: Close\r\n"
        "X-Caller: 1\r\n"
        "Authorization: Basic dTpw\r\n"
        "Content-Length: 5\r\n"
        "\r\n"
        "hello";
    EXPECT_EQ(f.req->sendMessage(&rc), static_cast<int>(expected.size()));
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(f.conn.wire, expected);
    EXPECT_EQ(f.conn.writes, 2u);  // header, then the body in one write
}

TEST(HttpRequest, ConnectPicksHostPortAndProxy) {
    struct Case {
        const char* url;
        const char16_t* proxy;
        const char16_t* proxyPort;
        const char* host;
        const char* port;
        bool secure;
        const char* requestLine;
    };
    const std::vector<Case> cases = {
        {"http://h/x", nullptr, nullptr, "h", "80", false, "GET /x HTTP/1.1"},
        {"https://h/x", nullptr, nullptr, "h", "443", true, "GET /x HTTP/1.1"},
        {"https://h:8443/x?q=1", nullptr, nullptr, "h", "8443", true, "GET /x HTTP/1.1"},
        {"http://h/x", u"proxy", nullptr, "proxy", "80", false, "GET http://h/x HTTP/1.1"},
        {"https://h/x", u"proxy", u"3128", "proxy", "3128", true, "GET https://h/x HTTP/1.1"},
    };
    for (const Case& c : cases) {
        Fixture f(c.url);
        f.url.setProxy(c.proxy);
        f.url.setPport(c.proxyPort);
        int rc = 0;
        ASSERT_EQ(f.req->connect(&rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT), 10) << c.url;
        ASSERT_EQ(f.conn.opened.size(), 1u);
        EXPECT_EQ(u8(f.conn.opened[0].host), c.host) << c.url;
        EXPECT_EQ(u8(f.conn.opened[0].service), c.port) << c.url;
        EXPECT_EQ(f.conn.opened[0].secure, c.secure) << c.url;
        const std::string cmd = f.impl().makeCmdLine();
        EXPECT_EQ(cmd.substr(0, cmd.find('\r')), c.requestLine) << c.url;
        EXPECT_NE(cmd.find("\r\nHost: h\r\n"), std::string::npos) << cmd;  // never the port
    }
}

TEST(HttpRequest, ProxyCredentialsComeBeforeTheHostCredentials) {
    Fixture f("http://h/x");
    f.url.setProxy(u"proxy");
    f.url.setPuser(u"pu");
    f.url.setPpass(u"pp");
    int rc = 0;
    f.req->connect(&rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT);
    f.req->sendMessage(&rc);
    EXPECT_NE(f.conn.wire.find("\r\nProxy-Authorization: Basic cHU6cHA=\r\nAuthorization: Basic dTpw\r\n\r\n"),
              std::string::npos)
        << f.conn.wire;
}

TEST(HttpRequest, FailedConnectsReturnMinusEleven) {
    FakeConnection none;
    std::unique_ptr<IHttpRequest> bare;
    EXPECT_EQ(createIHttpRequest(nullptr, bare), -1);
    ASSERT_EQ(createIHttpRequest(&none, bare), 0);
    int code = 0;
    EXPECT_EQ(bare->connect(&code, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT), -1);  // no URL
    EXPECT_TRUE(none.opened.empty());

    Fixture f("http:///nohost");
    int rc = 0;
    EXPECT_EQ(f.req->connect(&rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT), -11);
    EXPECT_TRUE(f.conn.opened.empty());

    Fixture g("http://h/x");
    g.conn.openRc = rt::NET_ERR_REFUSED;
    EXPECT_EQ(g.req->connect(&rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT), -11);
    EXPECT_EQ(rc, rt::NET_ERR_REFUSED);
}

TEST(HttpRequest, SetHeaderlineReplacesTheWholeHeader) {
    Fixture f("http://h/x");
    f.req->addHeaderline(u"A: 1");
    f.req->addHeaderline(u"B: 2");
    EXPECT_EQ(f.req->setHeaderline(u"C: 3"), 6);
    EXPECT_EQ(f.impl().headerBytes(), "C: 3\r\n");
    EXPECT_EQ(f.req->insertHeaderline(u"Z: 0"), 12);
    EXPECT_EQ(f.impl().headerBytes(), "Z: 0\r\nC: 3\r\n");
    EXPECT_EQ(f.req->setHeaderline(u""), 0);
    EXPECT_EQ(f.impl().headerBytes(), "");
    f.req->addHeaderline(u"X-Name: M\u00fcller \u20ac");  // 7-bit on the wire
    EXPECT_EQ(f.impl().headerBytes(), "X-Name: M?ller ?\r\n");
}

TEST(HttpRequest, LengthLineFollowsTheBodyOrTheArgument) {
    struct Case {
        const char* body;
        int announced;
        const char* lengthLine;  // null: none
    };
    const std::vector<Case> cases = {
        {"", -1, nullptr}, {"abc", -1, "Content-Length: 3"}, {"abc", 12, "Content-Length: 12"}, {"abc", 0, nullptr},
    };
    for (const Case& c : cases) {
        Fixture f("http://h/x");
        f.req->addHeaderline(u"Content-Length: 999");  // the caller's own line does not suppress ours
        f.req->setBody(std::string(c.body));
        int rc = -1;
        f.req->connect(&rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT);
        f.req->sendHeader(&rc, c.announced);
        EXPECT_EQ(rc, 0);
        const std::string& h = f.conn.wire;
        EXPECT_EQ(h.substr(h.size() - 4), "\r\n\r\n");
        const std::string ours = c.lengthLine ? std::string("\r\n") + c.lengthLine : "";
        EXPECT_TRUE(h.ends_with("\r\nContent-Length: 999\r\nAuthorization: Basic dTpw" + ours + "\r\n\r\n")) << h;
    }
}

TEST(HttpRequest, EmptyBodyWritesOnlyTheHeader) {
    Fixture f("http://h/x");
    int rc = -1;
    f.req->connect(&rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT);
    const int n = f.req->sendMessage(&rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(f.conn.writes, 1u);
    EXPECT_EQ(n, static_cast<int>(f.conn.wire.size()));
    EXPECT_EQ(f.conn.wire.find("Content-Length"), std::string::npos);
}

TEST(HttpRequest, SendMessageReportsTheCodeOfTheBodyWriteOnly) {
    struct Case {
        std::vector<int> writeRcs;
        int rc;
        size_t onWire;
    };
    const std::vector<Case> cases = {
        {{rt::NET_ERR_CLOSED, rt::NET_OK}, rt::NET_OK, 5},     // header lost: seen only in the count
        {{rt::NET_OK, rt::NET_ERR_TIMEOUT}, rt::NET_ERR_TIMEOUT, 0},
    };
    for (const Case& c : cases) {
        Fixture f("http://h/x");
        f.conn.writeRcs = c.writeRcs;
        f.req->setBody(std::string("hello"));
        int rc = 0;
        f.req->connect(&rc, IHttpRequest::UNCHUNKED, IHttpRequest::TRANSIENT);
        const int n = f.req->sendMessage(&rc);
        EXPECT_EQ(rc, c.rc);
        const size_t headerSize = f.impl().headerBytes().size();
        EXPECT_EQ(static_cast<size_t>(n), f.conn.wire.size());
        EXPECT_EQ(f.conn.wire.size(), c.writeRcs[0] == rt::NET_OK ? headerSize : c.onWire);
    }
}

TEST(HttpRequest, ChunkedPersistentTransfer) {
    Fixture f("http://h/x");
    f.req->setCmd(IHttpRequest::PUT);
    int rc = 0;
    ASSERT_EQ(f.req->connect(&rc, IHttpRequest::CHUNKED, IHttpRequest::PERSISTENT), 10);
    f.req->sendHeader(&rc, -1);
    f.req->setBody(std::string("hello world"));
    f.req->sendChunk(&rc, u";part=1");
    EXPECT_EQ(f.req->setFooterline(u""), 5);
    f.req->sendFooter(&rc);
    EXPECT_EQ(f.conn.wire,
              "PUT /x HTTP/1.1\r\nHost: h\r\nAuthorization: Basic dTpw\r\nTransfer-Encoding: chunked\r\n\r\n"
              "b;part=1\r\nhello world\r\n"
              "0\r\n\r\n");
}

TEST(HttpRequest, ResetForgetsUrlAndBuffers) {
    Fixture f("http://h/x");
    f.req->addHeaderline(u"A: 1");
    f.req->setBody(std::string("abc"));
    f.req->reset();
    EXPECT_EQ(f.req->getIURL(), nullptr);
    EXPECT_EQ(f.impl().makeCmdLine(), "");
    f.impl().completeHeader(-1);
    EXPECT_EQ(f.impl().headerBytes(), "\r\n");  // no request line, no credentials, no length
    EXPECT_TRUE(f.impl().bodyBytes().empty());
}

}  // namespace
}  // namespace kivreg
