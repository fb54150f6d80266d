#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <sstream>
#include <vector>

#include <unistd.h>

#include "http/Trace.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

// The trace is process-wide: the test routes it into its own file and returns
// it to its load-time state (no file, on, threshold 4).
TEST(Trace, ThresholdAndSwitchDecideWhatIsWrittenAndHow) {
    Trace& t = Trace::instance();
    EXPECT_FALSE(t.wants(Trace::TRANSPORT_LEVEL));  // quiet by default
    test::TempDir dir;
    std::FILE* fp = std::fopen((dir / "ext.log").c_str(), "w+");
    ASSERT_NE(fp, nullptr);
    t.setExternFP(fp);
    t.setVerbosity(2);
    t.t(1, "below");
    t.t(2, "HttpRequest::sendHeader", 0, 120, 120L, -1);
    t.tOn(false);
    t.t(3, "off");
    t.tOn(true);
    t.t(3, "texts", "a", std::string("b"), std::u16string(u"\u00e4"));
    t.t(3, std::string(Trace::MAX_MESSAGE + 100, 'm').c_str());
    t.setExternFP(nullptr);
    t.setVerbosity(4);
    std::fclose(fp);

    std::vector<std::string> messages;
    std::istringstream in(test::readFile(dir / "ext.log"));
    const std::regex form(
        R"(^[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4} \[[^:\]]*:(\d+)\]: (.*)$)");
    std::smatch m;
    for (std::string line; std::getline(in, line);) {
        ASSERT_TRUE(std::regex_match(line, m, form)) << line;
        EXPECT_EQ(m[1], std::to_string(getpid()));
        messages.push_back(m[2]);
    }
    const std::vector<std::string> expected = {"HttpRequest::sendHeader 0 120 120 -1",
                                               "texts a b \xC3\xA4",
                                               std::string(Trace::MAX_MESSAGE - 1, 'm')};
    EXPECT_EQ(messages, expected);
}

}  // namespace
}  // namespace kivreg
