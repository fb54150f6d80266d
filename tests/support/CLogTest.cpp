#include <gtest/gtest.h>

#include <regex>

#include "support/CGetStr.h"
#include "support/CLog.h"
#include "support/ERegExcept.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::readFile;
using test::TempDir;
using test::u16;

const std::regex kStampedLine(R"(^[A-Z][a-z]{2} [A-Z][a-z]{2} \d\d \d\d:\d\d:\d\d \d{4} (.*)$)");

TEST(CLog, EntriesGoToStdoutAndFileInTheSameOrder) {
    TempDir dir;
    testing::internal::CaptureStdout();
    {
        CLog log(u16(dir / "run.log"));
        log << timestamp << u"first " << 42 << u' ' << true << endlog;
        log << timestamp << u"second " << -5 << u' ' << false << u" " << 7UL << endlog;
    }
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_EQ(console, readFile(dir / "run.log"));
    std::istringstream in(console);
    std::string line;
    std::smatch m;
    ASSERT_TRUE(std::getline(in, line));
    ASSERT_TRUE(std::regex_match(line, m, kStampedLine)) << line;
    EXPECT_EQ(m[1], "first 42 true");
    ASSERT_TRUE(std::getline(in, line));
    ASSERT_TRUE(std::regex_match(line, m, kStampedLine)) << line;
    EXPECT_EQ(m[1], "second -5 false 7");
}

TEST(CLog, EmptyEntryIsDateTimeAndOneBlank) {
    test::LogCapture cap;
    cap.log() << timestamp << u"" << endlog;
    ASSERT_EQ(cap.lines().size(), 1u);
    EXPECT_TRUE(std::regex_match(cap.lines()[0], kStampedLine));
    EXPECT_EQ(cap.lines()[0].size(), 25u);  // "Sat Nov 14 12:04:22 2026 "
}

TEST(CLog, SecondLogObjectAppendsToTheSameFile) {
    TempDir dir;
    const auto name = u16(dir / "append.log");
    testing::internal::CaptureStdout();
    { CLog(name) << u"run one" << endlog; }
    { CLog(name) << u"run two" << endlog; }
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(readFile(dir / "append.log"), "run one\nrun two\n");
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

TEST(CLog, SwitchingFilesClosesTheFirst) {
    TempDir dir;
    testing::internal::CaptureStdout();
    CLog log(u16(dir / "a.log"));
    log << u"to a" << endlog;
    log.setFileName(u16(dir / "b.log"));
    log << u"to b" << endlog;
    log.setFileName(u16(dir / "b.log"));  // the same name again keeps the file
    log << u"again b" << endlog;
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(readFile(dir / "a.log"), "to a\n");
    EXPECT_EQ(readFile(dir / "b.log"), "to b\nagain b\n");
}

TEST(CLog, TextIsWrittenAsUtf8AndUnpairedSurrogatesDoNotStopTheEntry) {
    test::LogCapture cap;
    cap.log() << u"Gr\u00fc\u00dfe \u6f22 \U0001F600 " << std::u16string(1, char16_t(0xD800))
              << u"|" << "utf8 \xC3\xA9|\x80\x80\xFF" << endlog;
    EXPECT_EQ(cap.lines().at(0),
              "Gr\xC3\xBC\xC3\x9F"
              "e \xE6\xBC\xA2 \xF0\x9F\x98\x80 \xEF\xBF\xBD|utf8 \xC3\xA9|"
              "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(CLog, UnfinishedEntryIsWrittenInFrontOfTheNext) {
    test::LogCapture cap;
    cap.log() << u"dangling ";
    cap.log() << u"next" << endlog;
    EXPECT_EQ(cap.lines(), std::vector<std::string>{"dangling next"});
}

TEST(Support, HelpersFormatNumbersAndPositions) {
    EXPECT_EQ(CGetStr<int>::get(-2147483647 - 1), u"-2147483648");
    EXPECT_EQ(CGetStr<unsigned long>::get(18446744073709551615UL), u"18446744073709551615");
    EXPECT_EQ(fileinfo(u"a.cpp", 12), u" [a.cpp:12]");
    EXPECT_EQ(fileinfo(u"b.cpp", 3), u" [b.cpp:3]");
}

TEST(ERegExcept, CarriesTypeAndMessage) {
    ERegExcept e;
    EXPECT_EQ(e.getExceptionType(), EREG_NONE);
    e.setExcept(u"boom", EREG_CONVERSION);
    EXPECT_EQ(e.getExceptionType(), 4);
    EXPECT_EQ(e.getExceptionMsg(), u"boom");
}

}  // namespace
}  // namespace kivreg
