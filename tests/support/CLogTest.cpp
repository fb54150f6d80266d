#include <gtest/gtest.h>

#include <regex>

#include "support/CLog.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::readFile;
using test::TempDir;
using test::u16;

const std::regex kStampedLine(R"(^[A-Z][a-z]{2} [A-Z][a-z]{2} \d\d \d\d:\d\d:\d\d \d{4} (.*)$)");

// Numbers at their extremes, and an empty entry: the date and time and one blank.
TEST(CLog, EntriesGoToStdoutAndFileInTheSameOrder) {
    TempDir dir;
    testing::internal::CaptureStdout();
    {
        CLog log(u16(dir / "run.log"));
        log << timestamp << u"first " << (-2147483647 - 1) << u' ' << true << endlog;
        log << timestamp << u"second " << 18446744073709551615UL << u' ' << false << endlog;
        log << timestamp << u"" << endlog;
    }
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_EQ(console, readFile(dir / "run.log"));
    std::istringstream in(console);
    std::smatch m;
    for (const char* expected :
         {"first -2147483648 true", "second 18446744073709551615 false", ""}) {
        std::string line;
        ASSERT_TRUE(std::getline(in, line));
        ASSERT_TRUE(std::regex_match(line, m, kStampedLine)) << line;
        EXPECT_EQ(m[1], expected);
    }
}

// A second log object appends; switching files closes the first, the same name again keeps it.
TEST(CLog, FilesAreAppendedAndSwitched) {
    TempDir dir;
    testing::internal::CaptureStdout();
    { CLog(u16(dir / "a.log")) << u"run one" << endlog; }
    CLog log(u16(dir / "a.log"));
    log << u"to a" << endlog;
    log.setFileName(u16(dir / "b.log"));
    log << u"to b" << endlog;
    log.setFileName(u16(dir / "b.log"));
    log << u"again b" << endlog;
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(readFile(dir / "a.log"), "run one\nto a\n");
    EXPECT_EQ(readFile(dir / "b.log"), "to b\nagain b\n");
}

TEST(CLog, UnopenableFileIsReportedOnStderrAndLoggingGoesOn) {
    TempDir dir;
    const std::string path = (dir / "missing-dir" / "x.log").string();
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    CLog log;
    log.setFileName(u16(path));
    log << u"still here" << endlog;
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "*** Failed to open log file " + path + " ***\n");
    EXPECT_EQ(out, "still here\n");
    EXPECT_FALSE(log.isOpen());
}

// An entry left unfinished is written in front of the next.
TEST(CLog, TextIsWrittenAsUtf8AndUnpairedSurrogatesDoNotStopTheEntry) {
    test::LogCapture cap;
    cap.log() << u"Gr\u00fc\u00dfe \u6f22 \U0001F600 ";
    cap.log() << std::u16string(1, char16_t(0xD800)) << u"|" << "utf8 \xC3\xA9|\x80\x80\xFF"
              << endlog;
    EXPECT_EQ(cap.lines(),
              std::vector<std::string>{"Gr\xC3\xBC\xC3\x9F"
                                       "e \xE6\xBC\xA2 \xF0\x9F\x98\x80 \xEF\xBF\xBD|utf8 \xC3\xA9|"
                                       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"});
}

TEST(CLog, FileinfoNamesFileAndLine) {
    EXPECT_EQ(fileinfo(u"a.cpp", 12), u" [a.cpp:12]");
    EXPECT_EQ(fileinfo(u"b.cpp", 3), u" [b.cpp:3]");  // nothing of the longer one is left
}

}  // namespace
}  // namespace kivreg
