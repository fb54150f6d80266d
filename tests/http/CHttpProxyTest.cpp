#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "TestServer.h"
#include "http/CHttpProxy.h"
#include "model/CXmlFile.h"
#include "runtime/Tls.h"
#include "support/ERegExcept.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

namespace fs = std::filesystem;
using test::Peer;
using test::TestServer;
using test::u16;
using test::u8;

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
const std::u16string kDocument =
    u"<kivinfo supplier_name=\"M\u00fcller &amp; Sohn\" model_version=\"1.5\">"
    u"<group name=\"Systems\" group_type=\"GENERIC\"><class name=\"Computer\"><instance inst_id=\"h1\">"
    u"<property name=\"Name\"><value>h1</value></property></instance></class></group></kivinfo>";

// The expected request header from a data file: lines end in CR LF on the wire.
std::string expectedHeader(const char* file, size_t bodyLength) {
    std::string text = test::readFile(fs::path(KIVREG_TEST_DATA_DIR) / "http" / file);
    std::string out;
    for (char c : text) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return out.replace(out.find("@LENGTH@"), 8, std::to_string(bodyLength));
}

// SECUDIR as the test wants it, restored afterwards.
class ScopedSecudir {
public:
    explicit ScopedSecudir(const char* value) {
        if (const char* old = std::getenv("SECUDIR")) m_saved = old;
        value ? setenv("SECUDIR", value, 1) : unsetenv("SECUDIR");
    }
    ~ScopedSecudir() { m_saved ? setenv("SECUDIR", m_saved->c_str(), 1) : unsetenv("SECUDIR"); }

private:
    std::optional<std::string> m_saved;
};

class CHttpProxyTest : public ::testing::Test {
protected:
    CXmlFile& document() {
        if (!m_xml) m_xml = std::make_unique<CXmlFile>(m_docLog, kDocument, 0);
        return *m_xml;
    }
    std::unique_ptr<CHttpProxy> proxy(const std::string& port, bool openNow = true, bool https = false,
                                      const std::u16string& host = u"127.0.0.1") {
        return std::make_unique<CHttpProxy>(m_log, CHttpProxy::TRANSFER_ENCODING_UTF8, document(), u"u", u"p", host,
                                            u16(port), 420, 420, 420, openNow, https);
    }
    // One whole registration against a server that answers `answer`.
    int run(const std::string& answer, bool trace = false) {
        TestServer server([&](Peer& p) {
            p.readRequest();
            p.send(answer);
        });
        auto p = proxy(server.port());
        if (trace) p->setTrace();
        EXPECT_TRUE(p->isOpen());
        p->createBodyFromXML();
        EXPECT_EQ(p->send(), 0);
        const int status = p->receive();
        m_wire = server.received();
        return status;
    }
    std::string body() { return "<?xml version=\"1.0\" encoding=\"utf-8\"?>" + u8(document().getBody()); }

    test::LogCapture m_docLog;  // the document's own messages stay out of m_log
    test::LogCapture m_log;
    std::unique_ptr<CXmlFile> m_xml;
    std::string m_wire;
};

TEST_F(CHttpProxyTest, StandardRunSendsTheExactRequestAndLogsItsSteps) {
    ASSERT_TRUE(document().isLoaded());
    TestServer server([](Peer& p) {
        p.readRequest();
        p.send(kOk);
    });
    auto p = proxy(server.port());
    EXPECT_TRUE(p->isOpen());
    EXPECT_EQ(p->getNiRc(), 1);
    p->createBodyFromXML();
    EXPECT_EQ(p->send(), 0);
    EXPECT_EQ(p->receive(), CHttpProxy::HTTP_SUCCESS_CODE);
    server.join();

    const std::string b = body();
    EXPECT_NE(b.find("M\xC3\xBCller"), std::string::npos) << b;  // UTF-8 on the wire
    EXPECT_EQ(server.received(), expectedHeader("request_current.txt", b.size()) + b);
    EXPECT_EQ(p->getBodyRaw(), b);
    EXPECT_EQ(p->getBodyRawBytes(), b.size());
    EXPECT_EQ(u8(p->getBody()), b);
    const std::vector<std::string> expectedLog = {
        "Used URL: http://127.0.0.1:" + server.port() + "/kiv/ds",
        "HTTP open status: true - NI RC=0",
        "Return code: 200 --- Return message: (OK)",
    };
    EXPECT_EQ(m_log.messages(), expectedLog);
}

TEST_F(CHttpProxyTest, OldFormatKeepsTheContentTypeLine) {
    document().setOldTransferDtd(true);
    EXPECT_EQ(run(kOk), 200);
    const std::string b = body();
    EXPECT_EQ(m_wire, expectedHeader("request_old.txt", b.size()) + b);
}

TEST_F(CHttpProxyTest, ReceiveReportsTheStatusOrMinusOne) {
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    struct Case {
        const char* name;
        std::string answer;
        int status;
        const char* logLine;  // last log line, null when none is written
    };
    const std::vector<Case> cases = {
        {"201 is not success", "HTTP/1.1 201 Created\r\n\r\n", 201, "Return code: 201 --- Return message: (Created)"},
        {"unknown status", "HTTP/1.1 299 Odd\r\n\r\n", 100, "Return code: 100 --- Return message: (Continue)"},
        {"interim answer skipped", "HTTP/1.1 100 Continue\r\n\r\n" + kOk, 200, "Return code: 200 --- Return message: (OK)"},
        {"trailer status", chunked + "2\r\nok\r\n0\r\nX-Status: 603\r\n\r\n", 603,
         "Return code: 603 --- Return message: (ORVELDAN Warning: Nonfatal errors occured, check log tables)"},
        {"close before status line", "", -1, nullptr},
        {"oversized header", "HTTP/1.1 200 OK\r\nX: " + std::string(300 * 1024, 'x') + "\r\n\r\n", -1, nullptr},
        {"bad chunk size", chunked + "xyz\r\n", -1, nullptr},
    };
    for (const Case& c : cases) {
        m_log.log() << u"---" << endlog;
        EXPECT_EQ(run(c.answer), c.status) << c.name;
        const std::string last = m_log.messages().back();
        EXPECT_EQ(last, c.logLine ? c.logLine : "HTTP open status: true - NI RC=0") << c.name;
    }
}

TEST_F(CHttpProxyTest, TraceLogsBodyHeaderAndAnswer) {
    EXPECT_EQ(run("HTTP/1.1 100 Continue\r\n\r\n" + kOk, true), 200);
    const std::string text = m_log.text();
    const std::string expected = ">>> BEGIN HTTP MESSAGE BODY >>>\n" + body() +
                                 "\n<<< END HTTP MESSAGE BODY <<<\n"
                                 "NI rc: 0. HTTP header length: 1. HTTP header: Content-Length: 2\r\n\r\n\n"
                                 "HTTP body length: 2 --- HTTP body: ok\n"
                                 "Return code: 200 --- Return message: (OK)";
    EXPECT_NE(text.find(expected), std::string::npos) << text << "\n-- expected --\n" << expected;
}

TEST_F(CHttpProxyTest, AnswerWithoutBodyLogsEmptyUnderTrace) {
    EXPECT_EQ(run("HTTP/1.1 204 No Content\r\n\r\n", true), 204);
    EXPECT_NE(m_log.text().find("\nHTTP body length: 0 --- HTTP body: *empty*\n"), std::string::npos) << m_log.text();
}

TEST_F(CHttpProxyTest, MalformedUtf8AnswerRaisesTheConversionError) {
    try {
        run("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n\xC3\x28");
        FAIL() << "no exception";
    } catch (const ERegExcept& e) {
        EXPECT_EQ(e.getExceptionType(), EREG_CONVERSION);
    }
}

TEST_F(CHttpProxyTest, FailedOpenKeepsNoNetworkCode) {
    auto p = proxy(test::closedPort());
    EXPECT_FALSE(p->isOpen());
    EXPECT_EQ(p->getNiRc(), 0);
    EXPECT_EQ(m_log.messages().back(), "HTTP open status: false - NI RC=0");
}

TEST_F(CHttpProxyTest, OpenLaterWithOpenFile) {
    TestServer server([](Peer& p) {
        p.readRequest();
        p.send(kOk);
    });
    auto p = proxy(server.port(), false);
    EXPECT_FALSE(p->isOpen());
    EXPECT_EQ(m_log.messages().size(), 1u);  // only the URL line
    EXPECT_EQ(p->openFile(), 1);
    EXPECT_TRUE(p->isOpen());
    p->createBodyFromXML();
    EXPECT_EQ(p->send(), 0);
    EXPECT_EQ(p->receive(), 200);
}

TEST_F(CHttpProxyTest, HttpsSetsSecudirOnlyWhenUnset) {
    {
        ScopedSecudir unset(nullptr);
        proxy("1", false, true);
        ASSERT_NE(std::getenv("SECUDIR"), nullptr);
        EXPECT_EQ(fs::path(std::getenv("SECUDIR")), fs::current_path());
    }
    {
        ScopedSecudir preset("/some/where");
        proxy("1", false, true);
        EXPECT_STREQ(std::getenv("SECUDIR"), "/some/where");
    }
    {
        ScopedSecudir unset(nullptr);
        proxy("1", false, false);  // plain HTTP leaves the environment alone
        EXPECT_EQ(std::getenv("SECUDIR"), nullptr);
    }
}

TEST_F(CHttpProxyTest, HttpsRegistrationToATrustedServer) {
    test::TempDir secudir;
    const std::string certs = test::testCertDir();
    fs::copy_file(certs + "/ca.pem", secudir / rt::TLS_TRUST_FILE);
    ScopedSecudir scoped(secudir.path().c_str());
    TestServer server(
        [](Peer& p) {
            p.readRequest();
            p.send(kOk);
        },
        test::TlsServerConfig{certs + "/server.pem", certs + "/server.key", "", 0});
    auto p = proxy(server.port(), true, true, u"localhost");
    ASSERT_TRUE(p->isOpen());
    p->createBodyFromXML();
    EXPECT_EQ(p->send(), 0);
    EXPECT_EQ(p->receive(), 200);
    server.join();
    EXPECT_EQ(server.received().substr(0, 32), "POST /kiv/ds HTTP/1.1\r\nHost: loc");
    EXPECT_EQ(m_log.messages().front(), "Used URL: https://localhost:" + server.port() + "/kiv/ds");
}

TEST_F(CHttpProxyTest, BodyEncodings) {
    const std::u16string decl16 = u"<?xml version=\"1.0\" encoding=\"utf-16\"?>";
    CHttpProxy utf16(m_log, CHttpProxy::TRANSFER_ENCODING_UTF16, document(), u"u", u"p", u"h", u"1", 1, 1, 1, false,
                     false);
    const std::u16string text = decl16 + document().getBody();
    EXPECT_EQ(utf16.getBodyRaw(), std::string(reinterpret_cast<const char*>(text.data()), text.size() * 2));
    EXPECT_EQ(utf16.getBodyRawBytes(), text.size() * 2);
    CHttpProxy other(m_log, u"latin1", document(), u"u", u"p", u"h", u"1", 1, 1, 1, false, false);
    EXPECT_EQ(other.getBodyRawBytes(), 0u);
    EXPECT_EQ(u8(other.getBody()).substr(0, 39), "<?xml version=\"1.0\" encoding=\"latin1\"?>");
}

}  // namespace
}  // namespace kivreg
