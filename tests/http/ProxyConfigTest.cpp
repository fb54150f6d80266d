#include <gtest/gtest.h>

#include <list>
#include <map>

#include "http/ProxyConfig.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::u16;
using test::u8;

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
        {{{"all_proxy", "p:0"}}, {}, false, "dir", kInvalid},
        {{{"all_proxy", "p:65536"}}, {}, false, "dir", kInvalid},
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
}  // namespace kivreg
