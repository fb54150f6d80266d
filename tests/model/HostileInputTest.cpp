// Untrusted documents: entity bombs, deep nesting, external entities and
// DTDs, the network, malformed UTF-8. None may be followed, none may crash,
// and nothing may reach standard error.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "model/CXmlFile.h"
#include "model/ModelTestUtil.h"

namespace kivreg {
namespace {

using test::LogCapture;
using test::TempDir;
using test::u16;
using test::u8;

std::string billionLaughs(bool inAttribute) {
    std::string doc = "<?xml version='1.0'?>\n<!DOCTYPE kivinfo [\n<!ENTITY l0 'ha'>\n";
    for (int i = 1; i <= 10; ++i) {
        doc += "<!ENTITY l" + std::to_string(i) + " '";
        for (int j = 0; j < 10; ++j) doc += "&l" + std::to_string(i - 1) + ";";
        doc += "'>\n";
    }
    doc += "]>\n";
    if (inAttribute) return doc + "<kivinfo supplier_name='&l10;'/>";
    return doc + "<kivinfo supplier_name='S'><group name='G'><class name='C'><instance>"
                 "<property name='P'><value>&l10;</value></property></instance></class></group></kivinfo>";
}

std::string nested(int depth, bool inValue) {
    std::string open, close;
    for (int i = 0; i < depth; ++i) {
        open += "<n>";
        close += "</n>";
    }
    if (!inValue) return "<kivinfo supplier_name='S'>" + open + close + "</kivinfo>";
    return "<kivinfo supplier_name='S'><group name='G'><class name='C'><instance><property name='P'>"
           "<value>" + open + "x" + close + "</value></property></instance></class></group></kivinfo>";
}

TEST(HostileInput, RefusedAsParseErrors) {
    struct Case {
        const char* what;
        std::string doc;
        std::string reasonStart;
    };
    const Case cases[] = {
        {"entity bomb in text", billionLaughs(false), "Fatal Error: Detected an entity reference loop"},
        {"entity bomb in an attribute", billionLaughs(true), "Fatal Error: Detected an entity reference loop"},
        {"nesting 10000 deep", nested(10000, false), "Fatal Error: Excessive depth in document: 256"},
        {"nesting 10000 deep in a value", nested(10000, true), "Fatal Error: Excessive depth in document: 256"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture cap;
        testing::internal::CaptureStderr();
        auto file = test::loadText(cap, c.doc);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_FALSE(file->isLoaded());
        const auto messages = cap.messages();
        ASSERT_GE(messages.size(), 2u);
        EXPECT_EQ(messages[0], "Parse error on XML file.");
        EXPECT_EQ(messages[1].rfind(c.reasonStart, 0), 0u) << messages[1];
    }
}

TEST(HostileInput, ExternalEntitiesAndDtdsAreNotRead) {
    TempDir dir;
    // Were either file read, its content would break the parse or show up in the body.
    test::writeFile(dir / "secret.txt", "TOP-SECRET<unclosed>");
    test::writeFile(dir / "evil.dtd", "<!ENTITY inner 'TOP-SECRET'> <!ELEMENT broken");
    const std::string secret = "file://" + (dir / "secret.txt").string();
    const std::string dtd = "file://" + (dir / "evil.dtd").string();
    const std::string docs[] = {
        "<!DOCTYPE kivinfo [<!ENTITY x SYSTEM '" + secret + "'>]><kivinfo supplier_name='S'>"
        "<group name='G'><class name='C'><instance><property name='P'><value>&x;</value></property>"
        "</instance></class></group></kivinfo>",
        "<!DOCTYPE kivinfo SYSTEM '" + dtd + "'><kivinfo supplier_name='S'/>",
        "<!DOCTYPE kivinfo [<!ENTITY % p SYSTEM '" + dtd + "'> %p;]><kivinfo supplier_name='S'/>",
    };
    for (const std::string& doc : docs) {
        SCOPED_TRACE(doc);
        LogCapture cap;
        testing::internal::CaptureStderr();
        auto file = test::loadText(cap, doc);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_TRUE(file->isLoaded()) << cap.text();
        EXPECT_EQ(u8(file->getBody()).find("SECRET"), std::string::npos);
        EXPECT_EQ(cap.text().find("SECRET"), std::string::npos);
    }
}

TEST(HostileInput, NoConnectionIsMade) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(listener, 4), 0);
    socklen_t len = sizeof addr;
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/x";

    for (const std::string& doc :
         {"<!DOCTYPE kivinfo SYSTEM '" + url + "'><kivinfo supplier_name='S'/>",
          "<!DOCTYPE kivinfo [<!ENTITY x SYSTEM '" + url + "'>]><kivinfo supplier_name='S'>"
          "<group name='G'><class name='C'><instance><property name='P'><value>&x;</value>"
          "</property></instance></class></group></kivinfo>"}) {
        LogCapture cap;
        test::loadText(cap, doc);
    }
    pollfd pfd{listener, POLLIN, 0};
    EXPECT_EQ(::poll(&pfd, 1, 100), 0) << "the loader connected to " << url;
    ::close(listener);
}

TEST(HostileInput, MalformedUtf8IsAParseErrorWithPosition) {
    TempDir dir;
    const std::string name = (dir / "bad-utf8.xml").string();
    test::writeFile(name, "<kivinfo supplier_name='S'>\n  <group name='a\xC3\x28'/>\n</kivinfo>\n");
    LogCapture cap;
    testing::internal::CaptureStderr();
    CXmlFile file(cap, u16(name));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(file.isLoaded());
    const auto m = cap.messages();
    ASSERT_GE(m.size(), 4u);
    EXPECT_EQ(m[0], "Parse error on XML file.");
    EXPECT_EQ(m[1].rfind("Fatal Error: Input is not proper UTF-8", 0), 0u) << m[1];
    const std::string entity = " entity=" + name;
    const auto at = std::find(m.begin(), m.end(), entity);
    ASSERT_NE(at, m.end());
    ASSERT_NE(at + 1, m.end());
    EXPECT_EQ(*(at + 1), " in line 2, 17");
}

}  // namespace
}  // namespace kivreg
