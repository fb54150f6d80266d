#include <gtest/gtest.h>

#include <string>

#include "http/URL.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

// The parts as "scheme|host|port|path|query|fragment|user|password|text", "-" for an unset part.
std::string parts(const char* text) {
    URL url;
    if (!url.setUrl(u16(std::string(text)).c_str())) return "refused";
    std::string out;
    for (const char16_t* part : {url.getService(), url.getHost(), url.getHport(), url.getRawPath(),
                                 url.getQuery(), url.getFragment(), url.getHuser(), url.getHpass()})
        out += (part ? u8(part) : "-") + "|";
    return out + u8(url.getUrl(false)) + (url.isSecure() ? " secure" : "");
}

TEST(URL, SplitsIntoParts) {
    const struct {
        const char* text;
        const char* expected;
    } rows[] = {
        // clang-format off
        {"http://h/kiv/ds", "http|h|-|/kiv/ds|-|-|-|-|http://h/kiv/ds"},
        {"HTTPS://H.example:9/x?a=1#f", "HTTPS|H.example|9|/x|a=1|f|-|-|HTTPS://H.example:9/x?a=1#f secure"},
        {"https://h:0", "https|h|0|/|-|-|-|-|https://h:0 secure"},
        {"http://h:65536/", "http|h|65536|/|-|-|-|-|http://h:65536/"},
        {"http://h:00080a/", "http|h|00080a|/|-|-|-|-|http://h:00080a/"},
        {"http://h:/", "http|h||/|-|-|-|-|http://h:/"},
        {"http://", "http||-|/|-|-|-|-|http://"},
        {"http://[::1]:8080/p", "http|::1|8080|/p|-|-|-|-|http://[::1]:8080/p"},
        {"http://[::1]/p", "http|::1|-|/p|-|-|-|-|http://[::1]/p"},
        {"http://[::1", "http|::1|-|/|-|-|-|-|http://[::1"},
        {"http://[::1]x:1", "http|::1|-|/|-|-|-|-|http://[::1]x:1"},
        {"http://u@h", "http|h|-|/|-|-|u|-|http://h"},
        {"http://u:p@x@h:1#a?b", "http|h|1|/|-|a?b|u|p@x|http://h:1#a?b"},
        {"mailto:x@y", "mailto|-|-|-|-|-|-|-|mailto:x@y"},
        {"/kiv/ds?q", "-|-|-|/kiv/ds|q|-|-|-|/kiv/ds?q"},
        {"az09AZ+-.://h", "az09AZ+-.|h|-|/|-|-|-|-|az09AZ+-.://h"},
        {"Zz://h", "Zz|h|-|/|-|-|-|-|Zz://h"},
        {"1a://h", "-|-|-|1a://h|-|-|-|-|1a://h"},
        {"a@://h", "-|-|-|a@://h|-|-|-|-|a@://h"},
        {"a[://h", "-|-|-|a[://h|-|-|-|-|a[://h"},
        {"a/://h", "-|-|-|a/://h|-|-|-|-|a/://h"},
        {"@a://h", "-|-|-|@a://h|-|-|-|-|@a://h"},
        {"{a://h", "-|-|-|{a://h|-|-|-|-|{a://h"},
        {"a", "-|-|-|a|-|-|-|-|a"},
        {"", "refused"},
        // clang-format on
    };
    for (const auto& row : rows) EXPECT_EQ(parts(row.text), row.expected) << row.text;
}

// User information is %-decoded: hex digits of either case at the bounds of
// their ranges; a "%" without two hex digits behind it stays as it is.
TEST(URL, UserInformationIsDecoded) {
    URL url;
    url.setUrl(u"http://%30%39%61%66%41%46%2f%3A:%3g%g3%:0%`0%@0%G0%4@h");
    EXPECT_EQ(u8(url.getHuser()), "09afAF/:");
    EXPECT_EQ(u8(url.getHpass()), "%3g%g3%:0%`0%@0%G0%4");
    url.setUrl(u"http://%C3%A4%e2%82%ac%41:%F0%9F%98%80@h");
    EXPECT_EQ(std::u16string(url.getHuser()), u"\u00e4\u20acA");
    EXPECT_EQ(std::u16string(url.getHpass()), u"\U0001F600");
    // Without user information in the text, the user set before stays.
    url.setUrl(u"http://other/");
    EXPECT_EQ(std::u16string(url.getHuser()), u"\u00e4\u20acA");
}

}  // namespace
}  // namespace kivreg::test
