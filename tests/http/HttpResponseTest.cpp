#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestServer.h"
#include "http/HttpResponse.h"
#include "http/IPConnection.h"
#include "runtime/NetRc.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::Peer;
using test::TestServer;
using test::u16;
using test::u8;

constexpr int NO_STATUS = -1;

struct Answer {
    int skipped = 0;
    int headerRc = 0;
    int code = NO_STATUS;  // as reported by the status object
    std::string message;
    std::string body;
    int bodyRc = 0;
    std::string firstChunkExt;
    std::string footer;
};

// Serves `script` once over loopback and reads it the way a client would.
Answer readAnswer(const std::string& script, int readBufferSize) {
    TestServer server([&script](Peer& p) { p.send(script); });
    IPConnection conn;
    EXPECT_EQ(conn.open(u"127.0.0.1", u16(server.port()).c_str(), false), rt::NET_OK);
    HttpResponse r(&conn);
    r.setReadBufferSize(readBufferSize);
    Answer a;
    a.skipped = r.readHeaderSkip100(&a.headerRc);
    bool first = true;
    while (r.expectsBody()) {
        if (r.readBody(&a.bodyRc) < 1) break;
        a.body += r.getBody();
        if (first) a.firstChunkExt = u8(r.getChunkExtPar());
        first = false;
    }
    if (r.isChunked() && a.bodyRc >= 0) {
        int rc = 0;
        r.readFooter(&rc);
        a.footer = u8(r.getFooter());
    }
    if (IHttpStatus* status = r.getIHttpStatus()) {
        a.code = status->getCode();
        a.message = u8(status->getMessage());
    }
    return a;
}

struct Case {
    const char* name;
    std::string script;
    Answer expected;
};

std::vector<Case> cases() {
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
    std::string manyInterim;
    for (int i = 0; i <= IHttpResponse::MAX_INTERIM; ++i) manyInterim += "HTTP/1.1 100 Continue\r\n\r\n";
    return {
        {"content length", ok + "Content-Length: 5\r\nServer: t\r\n\r\nhello",
         {0, 0, 200, "(OK)", "hello", 0, "", ""}},
        {"chunked with extensions and trailers",
         "HTTP/1.1 200 OK\r\nTRANSFER-ENCODING: chunked\r\n\r\n5;name=val\r\nhello\r\n6 \r\n world\r\n"
         "0\r\nX-Status: 201\r\nX-Other: y\r\n\r\n",
         {0, 0, 201, "(Created)", "hello world", 0, "name=val", "X-Status: 201\r\nX-Other: y"}},
        {"one 100-Continue", "HTTP/1.1 100 Continue\r\n\r\n" + ok + "Content-Length: 2\r\n\r\nok",
         {1, 0, 200, "(OK)", "ok", 0, "", ""}},
        {"two 100-Continue", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 100 Continue\r\nX: 1\r\n\r\n" + ok + "\r\n",
         {2, 0, 200, "(OK)", "", 0, "", ""}},
        {"bare LF header", "HTTP/1.1 200 OK\nContent-Length: 2\n\nok", {0, 0, 200, "(OK)", "ok", 0, "", ""}},
        {"bare LF header, CR LF pairs in the body", "HTTP/1.1 200 OK\nContent-Length: 6\n\n\r\n\r\nab",
         {0, 0, 200, "(OK)", "\r\n\r\nab", 0, "", ""}},
        {"201", "HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n", {0, 0, 201, "(Created)", "", 0, "", ""}},
        {"unknown status", "HTTP/1.1 299 Odd\r\n\r\n", {0, 0, 100, "(Continue)", "", 0, "", ""}},
        {"status line without blank", "HTTP/1.1\r\n\r\n", {0, 0, 100, "(Continue)", "", 0, "", ""}},
        {"length and chunked: chunked wins", ok + "Content-Length: 100\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
         {0, 0, 200, "(OK)", "abc", 0, "", ""}},
        {"body cut short keeps its status", ok + "Content-Length: 10\r\n\r\nabc",
         {0, 0, 200, "(OK)", "abc", rt::NET_ERR_CLOSED, "", ""}},
        {"close before the status line", "", {0, rt::NET_ERR_CLOSED, NO_STATUS, "", "", 0, "", ""}},
        {"close inside the header", "HTTP/1.1 200 OK\r\nContent-Le", {0, rt::NET_ERR_CLOSED, NO_STATUS, "", "", 0, "", ""}},
        {"oversized header", ok + "X-Big: " + std::string(IHttpResponse::MAX_HEADER, 'a') + "\r\n\r\n",
         {0, rt::NET_ERR_LIMIT, NO_STATUS, "", "", 0, "", ""}},
        {"Content-Length above 2^31-1", ok + "Content-Length: 2147483648\r\n\r\n",
         {0, rt::NET_ERR_LIMIT, NO_STATUS, "", "", 0, "", ""}},
        {"Content-Length not a number", ok + "Content-Length: 12abc\r\n\r\n",
         {0, rt::NET_ERR_PROTOCOL, NO_STATUS, "", "", 0, "", ""}},
        {"body above the cap", ok + "Content-Length: 67108865\r\n\r\nabc",
         {0, 0, 200, "(OK)", "", rt::NET_ERR_LIMIT, "", ""}},
        {"chunk size not hexadecimal", chunked + "zz\r\nabc\r\n", {0, 0, 200, "(OK)", "", rt::NET_ERR_PROTOCOL, "", ""}},
        {"chunk size beyond 31 bits", chunked + "80000000\r\n", {0, 0, 200, "(OK)", "", rt::NET_ERR_PROTOCOL, "", ""}},
        {"chunk above the cap", chunked + "4000001\r\nabc", {0, 0, 200, "(OK)", "", rt::NET_ERR_LIMIT, "", ""}},
        {"chunks above the cap together", chunked + "3000000\r\n" + std::string(0x3000000, 'c') + "\r\n1000001\r\n",
         {0, 0, 200, "(OK)", std::string(0x3000000, 'c'), rt::NET_ERR_LIMIT, "", ""}},
        {"chunk without its line end", chunked + "3\r\nabcX\r\n0\r\n\r\n",
         {0, 0, 200, "(OK)", "abc", rt::NET_ERR_PROTOCOL, "", ""}},
        {"endless interim answers", manyInterim + ok + "\r\n",
         {IHttpResponse::MAX_INTERIM, rt::NET_ERR_PROTOCOL, NO_STATUS, "", "", 0, "", ""}},
    };
}

class HttpResponseAnswers : public ::testing::TestWithParam<int> {};

TEST_P(HttpResponseAnswers, AreReadAsScripted) {
    for (const Case& c : cases()) {
        // Byte-by-byte reads are slow for the multi-megabyte scripts and add nothing there.
        if (GetParam() == 1 && c.script.size() > (1u << 20)) continue;
        const Answer a = readAnswer(c.script, GetParam());
        const Answer& e = c.expected;
        EXPECT_EQ(a.skipped, e.skipped) << c.name;
        EXPECT_EQ(a.headerRc, e.headerRc) << c.name;
        EXPECT_EQ(a.code, e.code) << c.name;
        EXPECT_EQ(a.message, e.message) << c.name;
        EXPECT_EQ(a.body.size(), e.body.size()) << c.name;
        EXPECT_TRUE(a.body == e.body) << c.name;
        EXPECT_EQ(a.bodyRc, e.bodyRc) << c.name;
        EXPECT_EQ(a.firstChunkExt, e.firstChunkExt) << c.name;
        EXPECT_EQ(a.footer, e.footer) << c.name;
    }
}

// Large reads, and one byte per read so that every boundary falls mid-token.
INSTANTIATE_TEST_SUITE_P(ReadBufferSizes, HttpResponseAnswers, ::testing::Values(65536, 1));

TEST(HttpResponse, HeaderTextsAndLengths) {
    const std::string script = "HTTP/1.0 404 Not Found\r\nContent-Length: 4\r\nX-A: b\r\n\r\nnope";
    TestServer server([&script](Peer& p) { p.send(script); });
    IPConnection conn;
    ASSERT_EQ(conn.open(u"127.0.0.1", u16(server.port()).c_str(), false), rt::NET_OK);
    std::unique_ptr<IHttpResponse> r;
    EXPECT_EQ(createIHttpResponse(nullptr, r), -1);
    ASSERT_EQ(createIHttpResponse(&conn, r), 0);
    EXPECT_EQ(r->getStatusCode(), 999);
    EXPECT_EQ(r->getIHttpStatus(), nullptr);
    int rc = -1;
    EXPECT_EQ(r->readHeader(&rc), 29);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(u8(r->getHttpVersion()), "HTTP/1.0");
    EXPECT_EQ(u8(r->getHeader()), "Content-Length: 4\r\nX-A: b\r\n\r\n");
    EXPECT_EQ(u8(r->getRawHeader()), script.substr(0, script.size() - 4));
    EXPECT_EQ(r->getRawHeaderLen(), r->getHeaderLen() + 24);
    EXPECT_EQ(r->getContentLength(), 4);
    EXPECT_FALSE(r->isChunked());
    EXPECT_EQ(r->readBody(&rc), 4);
    EXPECT_EQ(r->getRawBody(), "nope");
    EXPECT_EQ(r->readBody(&rc), 0);  // the body has ended
    EXPECT_EQ(r->readFooter(&rc), 0);  // nothing to read after an unchunked body
    r->reset();
    EXPECT_EQ(r->getHeaderLen(), 0);
    EXPECT_EQ(r->getBodyLen(), 0);
    ASSERT_NE(r->getIHttpStatus(), nullptr);  // the status outlives reset
    EXPECT_EQ(r->getIHttpStatus()->getCode(), 404);
    EXPECT_EQ(r->close(), 1);
}

}  // namespace
}  // namespace kivreg
