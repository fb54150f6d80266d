// URL splitting and escaping, header dictionaries and Base64.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http/Base64.h"
#include "http/ParValDictionary.h"
#include "http/URL.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::u16;
using test::u8;

std::string str(const char16_t* text) {
    return text != nullptr ? u8(text) : "-";
}

TEST(URL, SplitsIntoParts) {
    // url -> "service|secure|host|port|portNumber|rawPath|path|query|fragment"
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"http://dir.example:8080/kiv/ds", "http|0|dir.example|8080|8080|/kiv/ds|/kiv/ds|-|-"},
        {"HTTPS://dir.example/a%20b?x=1&y=2#top",
         "HTTPS|1|dir.example|-|-1|/a%20b|/a b|x=1&y=2|top"},
        {"https://dir.example", "https|1|dir.example|-|-1|/|/|-|-"},
        {"http://[::1]:81/p", "http|0|::1|81|81|/p|/p|-|-"},
        {"http://h?q", "http|0|h|-|-1|/|/|q|-"},
        {"/only/path?q", "-|0|-|-|-1|/only/path|/only/path|q|-"},
    };
    for (const auto& [text, parts] : cases) {
        URL url;
        ASSERT_TRUE(url.setUrl(u16(std::string(text)).c_str())) << text;
        EXPECT_EQ(str(url.getService()) + "|" + std::to_string(url.isSecure()) + "|" +
                      str(url.getHost()) + "|" + str(url.getHport()) + "|" +
                      std::to_string(url.getHport2()) + "|" + str(url.getRawPath()) + "|" +
                      str(url.getPath()) + "|" + str(url.getQuery()) + "|" + str(url.getFragment()),
                  parts);
        EXPECT_EQ(u8(url.getUrl(false)), text);
    }
}

TEST(URL, CredentialsGoToUserAndPasswordNeverIntoTheText) {
    URL url;
    url.setHuser(u"keep");
    url.setUrl(u"http://h/x");
    EXPECT_EQ(str(url.getHuser()), "keep");  // a URL without credentials leaves them
    url.setUrl(u"https://me:se%3Acret@h:443/x");
    EXPECT_EQ(str(url.getHuser()) + ":" + str(url.getHpass()), "me:se:cret");
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
}

TEST(ParValMultilineDictionary, ParsesResponseHeaders) {
    std::unique_ptr<IParValMultilineDictionary> dict;
    ASSERT_EQ(
        createIParValMultilineDictionary(dict, u"\r\n", u";", u":=", u"\t\r\n ", true, true, true),
        0);
    EXPECT_EQ(dict->parseMultiline(u"Content-Type: text/xml; charset=\"a;b\"\r\n"
                                   u"content-LENGTH:  42 \r\nHost: h:8080\r\n\r\n"),
              3);
    EXPECT_EQ(str(dict->fetchVal(u"content-length", true)), "42");
    EXPECT_EQ(dict->fetchVal(u"content-length", false), nullptr);
    EXPECT_EQ(str(dict->fetchVal(u"charset", true)), "a;b");
    EXPECT_EQ(str(dict->fetchVal(u"host", true)), "h:8080");  // only the first separator splits
    EXPECT_EQ(str(dict->fetchPar(u"TEXT/XML", true)), "Content-Type");
}

TEST(Base64, EncodesAndDecodes) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {std::string("\xff\xfe\x00", 3), "//4A"},
    };
    for (const auto& [plain, encoded] : cases) {
        EXPECT_EQ(Base64::encode(std::string_view(plain)), encoded);
        EXPECT_EQ(Base64::decode(encoded), plain) << encoded;
    }
    EXPECT_EQ(u8(Base64::encode(std::u16string_view(u"\u00e4:p"))), "w6Q6cA==");  // UTF-8 bytes
    for (const char* bad : {"Zg=", "Z!==", "Zg==Zg=="})
        EXPECT_EQ(Base64::decode(bad), std::nullopt) << bad;
}

}  // namespace
}  // namespace kivreg
