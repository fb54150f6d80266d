#include <gtest/gtest.h>

#include <list>
#include <map>
#include <string>
#include <vector>

#include "TestServer.h"
#include "http/CHttpProxy.h"
#include "http/IIPConnection.h"
#include "http/ProxyConfig.h"
#include "model/CXmlFile.h"
#include "model/ModelTestUtil.h"
#include "runtime/NetRc.h"
#include "support/ERegExcept.h"
#include "support/Status.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
const char* const kOpened = "HTTP open status: true - NI RC=0";

// The request header before `body`; the two formats differ in one line.
std::string request(const std::string& formatLine, const std::string& body) {
    return "POST /kiv/ds HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: Close\r\n" + formatLine +
           "\r\nUserAgent: KIV Data Supplier kivreg\r\nAuthorization: Basic dTpw\r\n"
           "Content-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

class CHttpProxyTest : public ::testing::Test {
protected:
    test::LogCapture m_docLog;  // the document's own messages stay out of m_log
    CXmlFile m_doc{m_docLog,
                   u"<kivinfo supplier_name=\"M\u00fcller &amp; Sohn\" model_version=\"1.5\">"
                   u"<group name=\"Systems\" group_type=\"GENERIC\"><class name=\"Computer\">"
                   u"<instance inst_id=\"h1\"><property name=\"Name\"><value>h1</value>"
                   u"</property></instance></class></group></kivinfo>",
                   0};
    test::LogCapture m_log;
    std::vector<std::pair<size_t, size_t>> m_progress;  // as send reported it

    std::unique_ptr<CHttpProxy> proxy(const std::string& port, bool openNow = true,
                                      bool https = false) {
        return std::make_unique<CHttpProxy>(m_log, CHttpProxy::TRANSFER_ENCODING_UTF8, &m_doc, u"u",
                                            u"p", u"127.0.0.1", u16(port), 420, 420, 420, openNow,
                                            https);
    }
    // One registration against a server that answers `bytes`: the status and the request.
    // The body is rendered beforehand or, streamed, while it is sent.
    std::pair<int, std::string> run(const std::string& bytes, bool trace = false,
                                    bool streamed = false) {
        TestServer server([&](Peer& p) { p.readRequest(), p.send(bytes); });
        auto p = proxy(server.port());
        if (trace) p->setTrace();
        p->setProgress(
            [&](size_t written, size_t total) { m_progress.emplace_back(written, total); });
        EXPECT_TRUE(p->isOpen());
        if (streamed)
            p->createBodyFromXML();
        else
            p->setPreparedBody(CHttpProxy::renderBody(m_doc, CHttpProxy::TRANSFER_ENCODING_UTF8),
                               m_doc.useOldTransferDtd());
        EXPECT_EQ(p->send(), 0);
        const int status = p->receive();
        server.join();
        return {status, server.received()};
    }
    std::string body() { return "<?xml version=\"1.0\" encoding=\"utf-8\"?>" + test::body(m_doc); }
};

TEST_F(CHttpProxyTest, StandardAndOldFormatRequests) {
    ASSERT_TRUE(m_doc.isLoaded());
    const auto [status, wire] = run(kOk);
    EXPECT_EQ(status, CHttpProxy::HTTP_SUCCESS_CODE);
    EXPECT_NE(body().find("M\xC3\xBCller"), std::string::npos);  // UTF-8 on the wire
    EXPECT_EQ(wire, request("dsxmlversion:2.0", body()));
    EXPECT_EQ(m_progress, (std::vector<std::pair<size_t, size_t>>{{body().size(), body().size()}}));
    const std::vector<std::string> messages = m_log.messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].substr(0, 27), "Used URL: http://127.0.0.1:");
    EXPECT_EQ(messages[1], kOpened);
    EXPECT_EQ(messages[2], "Return code: 200 --- Return message: (OK)");

    EXPECT_EQ(run(kOk, false, true).second, request("dsxmlversion:2.0", body()));

    m_doc.setOldTransferDtd(true);
    EXPECT_NE(body().find("<qordata "), std::string::npos);
    for (const bool streamed : {false, true})
        EXPECT_EQ(run(kOk, false, streamed).second,
                  request("Content-type: text/xml; charset=\"utf-8\"", body()));
}

TEST_F(CHttpProxyTest, ReceiveReportsTheStatusOrMinusOneOrRaises) {
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const struct {
        const char* name;
        std::string answer;
        int status;
        const char* logLine;  // last log line
    } cases[] = {
        {"201 is not success", "HTTP/1.1 201 Created\r\n\r\n", 201,
         "Return code: 201 --- Return message: (Created)"},
        {"status outside the table", "HTTP/1.1 299 Odd Thing\r\n\r\n", 299,
         "Return code: 299 --- Return message: (Odd Thing)"},
        {"status line without a code", "HTTP/1.1 2000 OK\r\n\r\n", -1, kOpened},
        {"trailer status outside the table", chunked + "0\r\nX-Status: 299\r\n\r\n", 299,
         "Return code: 299 --- Return message: ()"},
        {"trailer status", chunked + "2\r\nok\r\n0\r\nX-Status: 603\r\n\r\n", 603,
         "Return code: 603 --- Return message: (ORVELDAN Warning: Nonfatal errors occured, check "
         "log tables)"},
        {"close before status line", "", -1, kOpened},
        {"bad chunk size", chunked + "xyz\r\n", -1, kOpened},
    };
    for (const auto& c : cases) {
        m_log.log() << u"---" << endlog;
        EXPECT_EQ(run(c.answer).first, c.status) << c.name;
        EXPECT_EQ(m_log.messages().back(), c.logLine) << c.name;
    }
    // A malformed UTF-8 answer raises the conversion error.
    EXPECT_THROW(run("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n\xC3\x28"), ERegExcept);
}

TEST_F(CHttpProxyTest, TraceLogsBodyHeaderAndAnswer) {
    EXPECT_EQ(run("HTTP/1.1 100 Continue\r\n\r\n" + kOk, true).first, 200);
    EXPECT_NE(m_log.text().find(
                  ">>> BEGIN HTTP MESSAGE BODY >>>\n" + body() +
                  "\n<<< END HTTP MESSAGE BODY <<<\n"
                  "NI rc: 0. HTTP header length: 1. HTTP header: Content-Length: 2\r\n\r\n\n"
                  "HTTP body length: 2 --- HTTP body: ok\n"
                  "Return code: 200 --- Return message: (OK)"),
              std::string::npos)
        << m_log.text();
    EXPECT_EQ(run("HTTP/1.1 204 No Content\r\n\r\n", true).first, 204);
    EXPECT_NE(m_log.text().find("\nHTTP body length: 0 --- HTTP body: *empty*\n"),
              std::string::npos);
}

TEST_F(CHttpProxyTest, HttpsLeavesTheEnvironmentAlone) {
    test::ScopedEnv env("SECUDIR", nullptr);
    proxy("1", false, true);
    EXPECT_EQ(std::getenv("SECUDIR"), nullptr);
}

TEST(Tunnel, ProxyAnswerDecidesWhatFollowsTheConnectRequest) {
    const std::string established = "HTTP/1.1 200 Connection established\r\n\r\n";
    const std::string tlsAlert("\x15\x03\x03\x00\x02\x02\x28", 7);  // fatal handshake_failure
    const struct {
        const char16_t* host;
        std::string answer;
        int rc;
        std::string refusal;
    } cases[] = {
        {u"dir.example", "HTTP/1.1 407 Proxy Authentication Required\r\n\r\n", rt::NET_ERR_PROXY,
         "407 (Proxy Authentication Required)"},
        // Printable 7-bit text from blank to tilde, at most 120 characters.
        {u"dir.example", "HTTP/1.0 502 Bad\tGate\x1f \x7e\x7f\xffway\r\nX: y\r\n\r\n",
         rt::NET_ERR_PROXY, "502 (Bad?Gate? ~??way)"},
        {u"dir.example", "HTTP/1.1 599 " + std::string(121, 'r') + "\r\n\r\n", rt::NET_ERR_PROXY,
         "599 (" + std::string(120, 'r') + ")"},
        {u"dir.example", "HTTP/1.1 100\r\n\r\n", rt::NET_ERR_PROXY, "100 ()"},
        {u"dir.example", "HTTP/1.1 99 Low\r\n\r\n", rt::NET_ERR_PROTOCOL, ""},
        {u"dir.example", "HTTP/1.1 600 High\r\n\r\n", rt::NET_ERR_PROTOCOL, ""},
        // What follows the proxy's answer is the server's first TLS bytes: here an alert.
        {u"::1", established + tlsAlert, rt::NET_ERR_TLS, ""},
        {u"dir.example", "HTTP/1.1 200 OK\r\nX: " + std::string(300 * 1024, 'x'), rt::NET_ERR_LIMIT,
         ""},
        {u"dir.example", "no status line\r\n\r\n", rt::NET_ERR_PROTOCOL, ""},
        {u"dir.example", "", rt::NET_ERR_CLOSED, ""},
    };
    for (const auto& c : cases) {
        TestServer proxy([&](Peer& p) { p.readRequest(), p.send(c.answer); });
        std::unique_ptr<IIPConnection> conn;
        ASSERT_EQ(createIIPConnection(conn), 0);
        EXPECT_EQ(
            conn->openTunnel(u"127.0.0.1", u16(proxy.port()).c_str(), c.host, u"8443", "dTpw"),
            c.rc)
            << c.answer.substr(0, 40);
        if (!c.refusal.empty()) {
            EXPECT_EQ(conn->status().reason, "HTTP status " + c.refusal);
        }
        proxy.join();
        const std::string target = c.host[0] == u':' ? "[::1]:8443" : "dir.example:8443";
        EXPECT_EQ(proxy.received(), "CONNECT " + target + " HTTP/1.1\r\nHost: " + target +
                                        "\r\nProxy-Authorization: Basic dTpw\r\n\r\n");
    }
}

const char* const kVariables[] = {"https_proxy", "HTTPS_PROXY", "http_proxy", "HTTP_PROXY",
                                  "all_proxy",   "ALL_PROXY",   "no_proxy",   "NO_PROXY"};

const char* const kInvalid = "Invalid proxy URL: expected http://[user[:password]@]host[:port]";

// What chooseProxy makes of it: "direct", the display form with " user:password"
// when there are credentials, or the error.
std::string outcome(const ProxyChoice& c) {
    if (!c.error.empty()) return u8(c.error);
    if (c.direct()) return "direct";
    return u8(c.display()) + (c.user ? " " + u8(*c.user) + ":" + u8(*c.password) : "");
}

TEST(ProxyConfig, EnvironmentAndOptionsChooseTheProxy) {
    const struct {
        std::map<std::string, const char*> env;
        ProxyOptions options;
        bool https;
        const char* host;
        const char* expected;
    } cases[] = {
        // clang-format off
        {{{"https_proxy", "p:3128"}}, {}, true, "dir", "http://p:3128"},
        {{{"HTTPS_PROXY", "http://P"}}, {}, true, "dir", "http://P:1080"},
        {{{"https_proxy", ""}, {"ALL_PROXY", "a:1"}}, {}, true, "dir", "http://a:1"},
        {{{"https_proxy", "s:1"}}, {}, false, "dir", "direct"},
        {{{"HTTP_PROXY", "up:1"}}, {}, false, "dir", "direct"},  // lower case only for HTTP
        {{{"http_proxy", "h:1"}, {"all_proxy", "a:1"}}, {}, false, "dir", "http://h:1"},
        {{{"http_proxy", "http://us%40r:p%3Aw@[::1]:8"}}, {}, false, "dir", "http://[::1]:8 us@r:p:w"},
        {{{"http_proxy", "u@h:1"}}, {}, false, "dir", "http://h:1 u:"},
        {{{"https_proxy", "p:1"}}, {.proxy = u""}, true, "dir", "direct"},
        {{}, {.proxy = u"o:2"}, true, "dir", "http://o:2"},
        {{{"https_proxy", "p:1"}, {"no_proxy", "other, .Example.COM"}}, {}, true, "a.example.com", "direct"},
        {{{"https_proxy", "p:1"}, {"NO_PROXY", "example.com"}}, {}, true, "example.com", "direct"},
        {{{"https_proxy", "p:1"}, {"no_proxy", "example.com"}}, {}, true, "badexample.com", "http://p:1"},
        {{{"https_proxy", "p:1"}, {"no_proxy", "*"}}, {.noProxy = u""}, true, "x", "http://p:1"},
        {{{"https_proxy", "p:1"}}, {.noProxy = u" * "}, true, "x", "direct"},
        {{{"https_proxy", "p:1"}, {"no_proxy", "2.3.4,[::1]"}}, {}, true, "1.2.3.4", "http://p:1"},
        {{{"https_proxy", "p:1"}, {"no_proxy", "1.2.3.4,[::1]"}}, {}, true, "::1", "direct"},
        {{{"https_proxy", "socks5://u:secret@p:1"}}, {}, true, "dir", "Unsupported proxy scheme: socks5"},
        {{{"https_proxy", "HTTPS://p"}}, {}, true, "dir", "Unsupported proxy scheme: HTTPS"},
        {{{"all_proxy", "p:9"}}, {}, false, "dir", "http://p:9"},
        {{{"all_proxy", "p:65535"}}, {}, false, "dir", "http://p:65535"},
        {{{"all_proxy", "p:09090"}}, {}, false, "dir", "http://p:09090"},
        {{{"all_proxy", "p:0"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:65536"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:000080"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:8a"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:/"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:1?q"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:1#f"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:1/"}}, {}, false, "dir", "http://p:1"},
        // Credentials %-decoded: hex digits of either case at the bounds of their ranges, UTF-8; a
        // "%" without two hex digits behind it stays. The last "@" ends them.
        {{{"all_proxy", "HTTP://%30%39%2a%2f%2A%2F:%3g%g3%:0%`0%@0%G0%4@[::1]"}}, {}, false,
         "dir", "http://[::1]:1080 09*/*/:%3g%g3%:0%`0%@0%G0%4"},
        {{{"all_proxy", "%C3%A4%e2%82%ac:p@x@p:1"}}, {}, false, "dir", "http://p:1 \xC3\xA4\xE2\x82\xAC:p@x"},
        {{{"all_proxy", "http://[::1"}}, {}, false, "dir", "http://[::1]:1080"},
        {{{"all_proxy", "http://[::1]x:1"}}, {}, false, "dir", "http://[::1]:1080"},
        // Scheme characters: a letter, then also digits, "+", "-" and "."; "a:b" has no
        // authority; text with "://" but no scheme names none.
        {{{"all_proxy", "Zz09+-.://h"}}, {}, false, "dir", "Unsupported proxy scheme: Zz09+-."},
        {{{"all_proxy", "a:b://h"}}, {}, false, "dir", "Unsupported proxy scheme: a"},
        {{{"all_proxy", "1a://h"}}, {}, false, "dir", "Unsupported proxy scheme: "},
        {{{"all_proxy", "@a://h"}}, {}, false, "dir", "Unsupported proxy scheme: "},
        {{{"all_proxy", "{a://h"}}, {}, false, "dir", "Unsupported proxy scheme: "},
        {{{"all_proxy", "a@://h"}}, {}, false, "dir", "Unsupported proxy scheme: "},
        {{{"all_proxy", "a[://h"}}, {}, false, "dir", "Unsupported proxy scheme: "},
        {{{"all_proxy", "a/://h"}}, {}, false, "dir", "Unsupported proxy scheme: "},
        {{{"all_proxy", "http://:1"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:1/path"}}, {}, false, "dir", kInvalid},
        // clang-format on
    };
    for (const auto& c : cases) {
        std::list<test::ScopedEnv> env;
        for (const char* name : kVariables) {
            const auto given = c.env.find(name);
            env.emplace_back(name, given == c.env.end() ? nullptr : given->second);
        }
        EXPECT_EQ(outcome(chooseProxy(c.https, u16(std::string(c.host)), c.options)), c.expected)
            << c.host << " " << (c.env.empty() ? "" : c.env.begin()->second);
    }
}

}  // namespace
}  // namespace kivreg::test
