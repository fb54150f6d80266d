#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "TestServer.h"
#include "http/HttpRequest.h"
#include "http/HttpResponse.h"
#include "http/IPConnection.h"
#include "http/URL.h"
#include "runtime/NetRc.h"
#include "testutil/InertConnection.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

using namespace rt;

// Keeps what is written to it and where it was opened, for checking request bytes without a
// network.
class FakeConnection final : public test::InertConnection {
public:
    int open(const char16_t* h, const char16_t* s, bool secure) override {
        return host = h, service = s, tls = secure, NET_OK;
    }
    int openTunnel(const char16_t* h, const char16_t* s, const char16_t* to, const char16_t* toPort,
                   std::string_view credentials) override {
        tunnel = u8(to) + ":" + u8(toPort) + " " + std::string(credentials);
        return open(h, s, true);
    }
    size_t write(const void* data, size_t size, int* rc) override {
        wire.append(static_cast<const char*>(data), size);
        return *rc = NET_OK, size;
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
        EXPECT_EQ(createIHttpRequest(conn, url, req), 0);
        url.setHuser(u"u");
        url.setHpass(u"p");
        url.setUrl(u16(std::string(text)).c_str());
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
        f.req->addHeaderline(u"X-Name: M\u00fcller \u20ac");  // 7-bit on the wire
        f.req->setBody(std::string("hello"));
        ASSERT_EQ(f.req->connect(&f.rc), 10);
        EXPECT_EQ(u8(f.conn.host) + ":" + u8(f.conn.service), c.hostPort) << c.url;
        EXPECT_EQ(f.conn.tls, c.secure) << c.url;
        EXPECT_EQ(f.conn.tunnel, c.tunnel) << c.url;
        const std::string wire =
            std::string(c.requestLine) +
            " HTTP/1.1\r\nHost: h\r\nConnection: Close\r\nX-Name: M?ller ?\r\n" +
            (c.proxyUser && !c.secure ? "Proxy-Authorization: Basic cHU6cHA=\r\n" : "") +
            "Authorization: Basic dTpw\r\nContent-Length: 5\r\n\r\nhello";
        EXPECT_EQ(f.req->sendMessage(&f.rc), wire.size()) << c.url;
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

constexpr int NO_STATUS = -1;

// A constructor, not defaults: rows name only the leading fields.
struct Answer {
    Answer(int s = 0, int h = 0, int c = NO_STATUS, std::string b = {}, int br = 0)
        : skipped(s), headerRc(h), code(c), body(b), bodyRc(br) {}
    int skipped, headerRc, code;
    std::string body;
    int bodyRc;
    auto fields() const { return std::tie(skipped, headerRc, code, bodyRc); }
};

// Serves `script` once over loopback and reads it the way a client would.
Answer readAnswer(const std::string& script, int readBufferSize) {
    test::TestServer server([&script](test::Peer& p) { p.send(script); });
    IPConnection conn;
    EXPECT_EQ(conn.open(u"127.0.0.1", test::u16(server.port()).c_str(), false), NET_OK);
    HttpResponse r(&conn);
    r.setReadBufferSize(readBufferSize);
    Answer a;
    a.skipped = r.readHeaderSkip100(&a.headerRc);
    // Up to the first failure: a later call would report the finished body.
    for (size_t n = 1; n > 0 && a.bodyRc == 0;)
        if ((n = r.readBody(&a.bodyRc)) > 0) a.body += r.getBody();
    if (r.isChunked() && a.bodyRc >= 0) r.readFooter(&a.bodyRc);  // a trailer may set the status
    if (IHttpStatus* status = r.getIHttpStatus()) a.code = status->getCode();
    return a;
}

class HttpResponseAnswers : public ::testing::TestWithParam<int> {};

TEST_P(HttpResponseAnswers, AreReadAsScripted) {
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
    const std::string cont = "HTTP/1.1 100 Continue\r\n\r\n";
    std::string manyInterim;
    for (int i = 0; i <= IHttpResponse::MAX_INTERIM; ++i) manyInterim += cont;
    const std::string big(0x3000000, 'c');
    const std::string fullHead = ok + "Content-Length: 5\r\nX-Big: ";
    const std::string atLimit =  // the header, its empty line included, at the limit
        fullHead + std::string(IHttpResponse::MAX_HEADER - fullHead.size() - 4, 'a') + "\r\n\r\n";
    std::string small, smallBody;  // more chunks than one read holds, lines cut by reads
    for (int i = 0; i < 20000; ++i) small += "3\r\nabc\r\n", smallBody += "abc";
    std::string trailerLines;
    for (int i = 0; i < 1000; ++i) trailerLines += "X: y\n";
    const struct {
        const char* name;
        std::string script;
        Answer expected;
    } cases[] = {
        // clang-format off
        {"length", ok + "Content-Length: 5\r\nServer: t\r\n\r\nhello", {0, 0, 200, "hello"}},
        {"a quoted separator keeps its field whole",
         ok + "X-Note: \"a;Content-Length: 3\"\r\nContent-Length: 5\r\n\r\nhello",
         {0, 0, 200, "hello"}},
        {"an unclosed quote ends with its line",
         ok + "X-Note: \"a\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n",
         {0, 0, 200, "ok"}},
        {"chunked with extensions and trailers",
         "HTTP/1.1 200 OK\r\nTRANSFER-ENCODING: chunked\r\n\r\n5;name=val\r\nhello\r\n"
         "6 \r\n world\r\n0\r\nX-Status: 201\r\nX-Other: y\r\n\r\n", {0, 0, 201, "hello world"}},
        {"two 100-Continue", cont + "HTTP/1.1 100 Continue\r\nX: 1\r\n\r\n" + ok + "\r\n",
         {2, 0, 200, ""}},
        {"bare LF header, CR LF in the body", "HTTP/1.1 200 OK\nContent-Length: 6\n\n\r\n\r\nab",
         {0, 0, 200, "\r\n\r\nab"}},
        {"length and chunked: chunked wins",
         ok + "Content-Length: 100\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
         {0, 0, 200, "abc"}},
        {"body cut short keeps its status", ok + "Content-Length: 10\r\n\r\nabc",
         {0, 0, 200, "abc", NET_ERR_CLOSED}},
        {"close before the status line", "", {0, NET_ERR_CLOSED}},
        {"header at the limit", atLimit + "hello", {0, 0, 200, "hello"}},
        {"oversized header",
         ok + "X-Big: " + std::string(IHttpResponse::MAX_HEADER, 'a') + "\r\n\r\n",
         {0, NET_ERR_LIMIT}},
        {"length above 2^31-1", ok + "Content-Length: 2147483648\r\n\r\n", {0, NET_ERR_LIMIT}},
        {"length 2^31-1: too much body, not a bad header", ok + "Content-Length: 2147483647\r\n\r\n",
         {0, 0, 200, "", NET_ERR_LIMIT}},
        {"length not a number", ok + "Content-Length: 12abc\r\n\r\n", {0, NET_ERR_PROTOCOL}},
        {"body above the 64 MiB cap", ok + "Content-Length: 67108865\r\n\r\nabc",
         {0, 0, 200, "", NET_ERR_LIMIT}},
        {"body at the cap, cut short", ok + "Content-Length: 67108864\r\n\r\nabc",
         {0, 0, 200, "abc", NET_ERR_CLOSED}},
        {"chunk sizes in hex of either case",
         chunked + "a\r\n0123456789\r\nF\r\nfifteen bytes..\r\n9\r\nnine byte\r\n10\r\n"
         "sixteen bytes...\r\n0\r\n\r\n",
         {0, 0, 200, "0123456789fifteen bytes..nine bytesixteen bytes..."}},
        {"many small chunks", chunked + small + "0\r\n\r\n", {0, 0, 200, smallBody}},
        {"chunk size not hex", chunked + "zz\r\nabc\r\n", {0, 0, 200, "", NET_ERR_PROTOCOL}},
        {"chunk size beyond 31 bits", chunked + "80000000\r\n", {0, 0, 200, "", NET_ERR_PROTOCOL}},
        {"chunk above the cap", chunked + "4000001\r\nabc", {0, 0, 200, "", NET_ERR_LIMIT}},
        {"chunks above the cap together", chunked + "3000000\r\n" + big + "\r\n1000001\r\n",
         {0, 0, 200, big, NET_ERR_LIMIT}},
        // Size lines and line ends count too: 9 + 0x3000000 + 2 + 8 + 0xffffeb + 2 is the cap.
        {"chunks and their lines at the cap, cut short",
         chunked + "3000000\r\n" + big + "\r\nffffeb\r\nabc",
         {0, 0, 200, big + "abc", NET_ERR_CLOSED}},
        {"chunks and their lines a byte above the cap",
         chunked + "3000000\r\n" + big + "\r\nffffec\r\nabc", {0, 0, 200, big, NET_ERR_LIMIT}},
        {"chunk without its line end", chunked + "3\r\nabcX\r\n0\r\n\r\n",
         {0, 0, 200, "abc", NET_ERR_PROTOCOL}},
        // The first line leaves room for one of 9 bytes and its LF, and no more.
        {"trailer of bare-LF lines past the cap",
         chunked + "2\r\nok\r\n0\r\n" + std::string(IHttpResponse::MAX_HEADER - 12, 't') +
             "\nX-Nine: 9\n" + trailerLines,
         {0, 0, 200, "ok", NET_ERR_LIMIT}},
        {"trailer of CR LF lines at the cap",
         chunked + "2\r\nok\r\n0\r\n" + std::string(IHttpResponse::MAX_HEADER - 4, 't') +
             "\r\n\r\n",
         {0, 0, 200, "ok"}},
        {"endless interim answers", manyInterim + ok + "\r\n",
         {IHttpResponse::MAX_INTERIM, NET_ERR_PROTOCOL}},
        // clang-format on
    };
    for (const auto& c : cases) {
        // Byte-by-byte reads are slow for the multi-megabyte scripts and add nothing there.
        if (GetParam() == 1 && c.script.size() > (1u << 20)) continue;
        const Answer a = readAnswer(c.script, GetParam());
        EXPECT_EQ(a.fields(), c.expected.fields()) << c.name;
        EXPECT_TRUE(a.body == c.expected.body) << c.name << ": " << a.body.size() << " bytes";
    }
}

// Large reads, and one byte per read so that every boundary falls mid-token.
INSTANTIATE_TEST_SUITE_P(ReadBufferSizes, HttpResponseAnswers, ::testing::Values(65536, 1));

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
        const int s = k.seconds, r = k.returned;
        EXPECT_EQ(std::tuple(c.setTimeOutConn(s), c.setTimeOutSend(s), c.setTimeOutRead(s)),
                  std::tuple(r, r, r))
            << s;
        EXPECT_EQ(std::tuple(c.getTimeOutConn(), c.getTimeOutSend(), c.getTimeOutRead()),
                  std::tuple(k.stored, k.stored, k.stored))
            << s;
    }
}

}  // namespace
}  // namespace kivreg::test
