#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>
#include <vector>

#include <unistd.h>

#include "http/Trace.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::readFile;
using test::u16;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// The trace is process-wide: every test starts from and returns to its
// load-time state (no file, on, threshold 4, no echo).
class TraceTest : public ::testing::Test {
protected:
    void SetUp() override { restore(); }
    void TearDown() override { restore(); }
    static void restore() {
        Trace& t = Trace::instance();
        t.setExternFP(nullptr);
        t.setVerbosity(4);
        t.tOn(true);
        t.setLogPath(nullptr);
        t.setFileName(nullptr);
        if (t.echoes()) t.setLogPath(u"-");
    }
    // Routes the trace into a file of the test's own directory.
    std::FILE* external() {
        m_fp = std::fopen((m_dir / "ext.log").c_str(), "w+");
        Trace::instance().setExternFP(m_fp);
        return m_fp;
    }
    std::vector<std::string> externalLines() {
        std::fflush(m_fp);
        return linesOf(readFile(m_dir / "ext.log"));
    }
    ~TraceTest() override {
        if (m_fp) std::fclose(m_fp);
    }

    test::TempDir m_dir;
    std::FILE* m_fp = nullptr;
};

TEST_F(TraceTest, LineCarriesUtcTimeHostPidAndTheFormattedMessage) {
    external();
    Trace& t = Trace::instance();
    t.t(1, "HttpRequest::sendHeader", 0, 120, 120L, -1);
    t.t(1, nullptr);
    t.t(1, "texts", "a", std::string("b"), std::u16string(u"\u00e4"));
    const auto lines = externalLines();
    ASSERT_EQ(lines.size(), 3u);
    const std::regex form(R"(^[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4} \[([^:\]]*):(\d+)\]: (.*)$)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m, form)) << lines[0];
    EXPECT_EQ(m[2], std::to_string(getpid()));
    EXPECT_EQ(m[3], "HttpRequest::sendHeader 0 120 120 -1");
    ASSERT_TRUE(std::regex_match(lines[1], m, form));
    EXPECT_EQ(m[3], "(NULL)");
    ASSERT_TRUE(std::regex_match(lines[2], m, form));
    EXPECT_EQ(m[3], "texts a b \xC3\xA4");
}

TEST_F(TraceTest, ThresholdAndSwitchDecideWhatIsWritten) {
    Trace& t = Trace::instance();
    external();
    EXPECT_EQ(t.getVerbosity(), 0);  // an external file opens the gate
    EXPECT_EQ(t.setVerbosity(2), 0);
    t.t(1, "below");
    t.t(2, "at");
    EXPECT_TRUE(t.tOn(false));
    t.t(3, "off");
    EXPECT_FALSE(t.tOn(true));
    t.t(3, "above");
    const auto lines = externalLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("]: at"), std::string::npos);
    EXPECT_NE(lines[1].find("]: above"), std::string::npos);
}

TEST_F(TraceTest, DefaultTraceWritesNothingAtTransportLevel) {
    Trace& t = Trace::instance();
    EXPECT_FALSE(t.wants(Trace::TRANSPORT_LEVEL));
    t.setLogPath(u16(m_dir.path()).c_str());
    t.setFileName(u"own.log");
    t.t(Trace::TRANSPORT_LEVEL, "quiet");
    EXPECT_FALSE(std::filesystem::exists(m_dir / "own.log"));
}

TEST_F(TraceTest, OwnFileNeedsPathAndNameAndIsAppendedPerLine) {
    Trace& t = Trace::instance();
    t.setVerbosity(0);
    std::string name;
    t.setFileName(u"own.log");
    EXPECT_FALSE(t.makeLogFileName(name));  // no path yet
    t.t(1, "dropped");
    t.setLogPath(u16(m_dir.path()).c_str());
    EXPECT_EQ(test::u8(t.getLogPath()), m_dir.path().string() + "/");
    ASSERT_TRUE(t.makeLogFileName(name));
    EXPECT_EQ(name, (m_dir / "own.log").string());
    t.t(1, "one");
    t.t(1, "two");
    const auto lines = linesOf(readFile(m_dir / "own.log"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[1].find("]: two"), std::string::npos);
    EXPECT_TRUE(t.clearLogFile());
    EXPECT_FALSE(std::filesystem::exists(m_dir / "own.log"));
    t.setLogPath(nullptr);
    EXPECT_FALSE(t.makeLogFileName(name));
}

TEST_F(TraceTest, DashTogglesTheEchoToStandardOutput) {
    Trace& t = Trace::instance();
    t.setVerbosity(0);
    t.setLogPath(u"-");
    EXPECT_TRUE(t.echoes());
    EXPECT_TRUE(t.getLogPath().empty());
    testing::internal::CaptureStdout();
    t.t(1, "echoed");
    t.setLogPath(u"-");
    t.t(1, "silent");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(t.echoes());
    EXPECT_NE(out.find("]: echoed\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("silent"), std::string::npos);
}

TEST_F(TraceTest, ExternalFileIsTheCallersToKeep) {
    Trace& t = Trace::instance();
    std::FILE* fp = external();
    EXPECT_EQ(t.getExternFP(), fp);
    t.setFileName(u"ext.log");
    t.setLogPath(u16(m_dir.path()).c_str());
    EXPECT_FALSE(t.clearLogFile());
    EXPECT_TRUE(std::filesystem::exists(m_dir / "ext.log"));
    t.t(1, std::string(Trace::MAX_MESSAGE + 100, 'm').c_str());
    const auto lines = externalLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(lines[0].find("]: ") + 3).size(), Trace::MAX_MESSAGE - 1);
    t.setExternFP(nullptr);
    EXPECT_EQ(t.getExternFP(), nullptr);
}

}  // namespace
}  // namespace kivreg
