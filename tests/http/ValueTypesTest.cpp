// URL splitting and escaping, header dictionaries, Base64 and the status table.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "http/Base64.h"
#include "http/HttpStatus.h"
#include "http/ParValDictionary.h"
#include "http/URL.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::u16;
using test::u8;

std::string str(const char16_t* text) { return text != nullptr ? u8(text) : "(null)"; }

TEST(URL, SplitsIntoParts) {
    struct Case {
        const char* url;
        const char* service;
        bool secure;
        const char* host;
        const char* port;
        int portNumber;
        const char* rawPath;
        const char* path;
        const char* query;
        const char* fragment;
    };
    const std::vector<Case> cases = {
        {"http://dir.example:8080/kiv/ds", "http", false, "dir.example", "8080", 8080, "/kiv/ds", "/kiv/ds", "(null)", "(null)"},
        {"HTTPS://dir.example/a%20b?x=1&y=2#top", "HTTPS", true, "dir.example", "(null)", -1, "/a%20b", "/a b", "x=1&y=2", "top"},
        {"https://dir.example", "https", true, "dir.example", "(null)", -1, "/", "/", "(null)", "(null)"},
        {"http://[::1]:81/p", "http", false, "::1", "81", 81, "/p", "/p", "(null)", "(null)"},
        {"http://h?q", "http", false, "h", "(null)", -1, "/", "/", "q", "(null)"},
        {"/only/path?q", "(null)", false, "(null)", "(null)", -1, "/only/path", "/only/path", "q", "(null)"},
    };
    for (const Case& c : cases) {
        URL url;
        ASSERT_TRUE(url.setUrl(u16(std::string(c.url)).c_str())) << c.url;
        EXPECT_EQ(str(url.getService()), c.service) << c.url;
        EXPECT_EQ(url.isSecure(), c.secure) << c.url;
        EXPECT_EQ(str(url.getHost()), c.host) << c.url;
        EXPECT_EQ(str(url.getHport()), c.port) << c.url;
        EXPECT_EQ(url.getHport2(), c.portNumber) << c.url;
        EXPECT_EQ(str(url.getRawPath()), c.rawPath) << c.url;
        EXPECT_EQ(str(url.getPath()), c.path) << c.url;
        EXPECT_EQ(str(url.getQuery()), c.query) << c.url;
        EXPECT_EQ(str(url.getFragment()), c.fragment) << c.url;
        EXPECT_EQ(u8(url.getUrl(false)), c.url) << c.url;
    }
}

TEST(URL, CredentialsGoToUserAndPasswordNeverIntoTheText) {
    URL url;
    url.setHuser(u"keep");
    url.setUrl(u"http://h/x");
    EXPECT_EQ(str(url.getHuser()), "keep");  // a URL without credentials leaves them
    url.setUrl(u"https://me:se%3Acret@h:443/x");
    EXPECT_EQ(str(url.getHuser()), "me");
    EXPECT_EQ(str(url.getHpass()), "se:cret");
    EXPECT_EQ(u8(url.getUrl(false)), "https://h:443/x");
}

TEST(URL, EscapeAndUnescape) {
    URL url;
    const std::vector<std::pair<std::u16string, std::string>> cases = {
        {u"a b", "a%20b"},
        {u"safe-_,.!~*'()/?;:@&=+$AZaz09", "safe-_,.!~*'()/?;:@&=+$AZaz09"},
        {u"100%\"<>", "100%25%22%3c%3e"},
        {u"\u00e4\u20ac", "%c3%a4%e2%82%ac"},
        {u"\U0001F600", "%f0%9f%98%80"},
    };
    for (const auto& [plain, escaped] : cases) {
        EXPECT_EQ(u8(url.escape(plain)), escaped);
        EXPECT_EQ(url.unescape(u16(escaped)), plain) << escaped;
    }
    EXPECT_EQ(u8(url.unescape(u"%zz%4")), "%zz%4");  // not escapes: left as they are
    EXPECT_TRUE(URL::isIn(u'~', URL::SAFE_CHARS));
    EXPECT_FALSE(URL::isIn(u'%', URL::SAFE_CHARS));
}

TEST(ParValMultilineDictionary, ParsesResponseHeaders) {
    std::unique_ptr<IParValMultilineDictionary> dict;
    ASSERT_EQ(createIParValMultilineDictionary(dict, u"\r\n", u";", u":=", u"\t\r\n ", true, true, true), 0);
    EXPECT_EQ(dict->parseMultiline(u"Content-Type: text/xml; charset=\"a;b\"\r\n"
                                   u"content-LENGTH:  42 \r\nHost: h:8080\r\n\r\n"),
              3);
    EXPECT_EQ(str(dict->fetchVal(u"content-length", true)), "42");
    EXPECT_EQ(dict->fetchVal(u"content-length", false), nullptr);
    EXPECT_EQ(str(dict->fetchVal(u"charset", true)), "a;b");
    EXPECT_EQ(str(dict->fetchVal(u"host", true)), "h:8080");  // only the first separator splits
    EXPECT_EQ(str(dict->fetchPar(u"TEXT/XML", true)), "Content-Type");
    EXPECT_EQ(dict->getBlock().size(), 3u);
    EXPECT_EQ(u8(dict->getBlock()[1].line), "content-LENGTH:  42 ");
    dict->reset();
    EXPECT_EQ(dict->fetchVal(u"host", true), nullptr);
}

TEST(Base64, EncodesAndDecodes) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="},
        {"u:p", "dTpw"}, {std::string("\xff\xfe\x00", 3), "//4A"},
    };
    for (const auto& [plain, encoded] : cases) {
        EXPECT_EQ(Base64::encode(std::string_view(plain)), encoded);
        EXPECT_EQ(Base64::decode(encoded), plain) << encoded;
    }
    EXPECT_EQ(u8(Base64::encode(std::u16string_view(u"\u00e4:p"))), "w6Q6cA==");  // UTF-8 bytes
    for (const char* bad : {"Zg=", "Z!==", "Zg==Zg=="}) EXPECT_EQ(Base64::decode(bad), std::nullopt) << bad;
}

TEST(HttpStatus, TableHas58DistinctRowsInOrder) {
    const auto table = HttpStatus::table();
    ASSERT_EQ(table.size(), 58u);
    std::set<int> codes;
    for (const HttpStatus::Row& row : table) {
        codes.insert(row.code);
        EXPECT_EQ(u8(std::u16string(row.text)), std::to_string(row.code));
        EXPECT_EQ(row.reason.front(), u'(');
        EXPECT_EQ(row.reason.back(), u')');
    }
    EXPECT_EQ(codes.size(), 58u);
    EXPECT_EQ(table[39].code, 505);
    EXPECT_EQ(table[40].code, 250);
    EXPECT_EQ(table[57].code, 900);
}

TEST(HttpStatus, CodesAndMessages) {
    const std::vector<std::tuple<int, int, std::string>> cases = {
        {200, 200, "(OK)"},
        {201, 201, "(Created)"},
        {408, 408, "(Request Time-out)"},
        {414, 414, "(Request-URI Too Large)"},
        {416, 416, "(Requested range not satisfiable)"},
        {505, 505, "(HTTP Version not supported)"},
        {603, 603, "(ORVELDAN Warning: Nonfatal errors occured, check log tables)"},
        {299, 100, "(Continue)"},
        {999, 100, "(Continue)"},
        {-1, 100, "(Continue)"},
    };
    for (const auto& [in, code, message] : cases) {
        HttpStatus status(in);
        EXPECT_EQ(status.getCode(), code) << in;
        EXPECT_EQ(u8(status.getCode2()), std::to_string(code)) << in;
        EXPECT_EQ(u8(status.getMessage()), message) << in;
    }
    HttpStatus status(404);
    status.addMessage(u"Server says ");
    EXPECT_EQ(u8(status.getMessage()), "Server says (Not Found)");
    status.addMessage(std::u16string(300, u'x'));
    EXPECT_EQ(status.getMessage().size(), HttpStatus::MAX_MESSAGE);
}

}  // namespace
}  // namespace kivreg
