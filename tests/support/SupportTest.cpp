#include <gtest/gtest.h>

#include <regex>

#include "support/CCConv.h"
#include "support/CLog.h"
#include "support/Status.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

std::u16string messageOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const ERegExcept& e) {
        EXPECT_EQ(e.getExceptionType(), EREG_CONVERSION);
        return e.getExceptionMsg();
    }
    return u"(no exception)";
}

TEST(CCConv, RoundTripsMixedText) {
    const std::u16string text = u"ASCII \u00e9\u00df \u6f22\u5b57 \U0001F600\U0010FFFF end";
    const std::string utf8 = CCConv::toUTF8Str(text);
    EXPECT_EQ(
        utf8,
        "ASCII \xC3\xA9\xC3\x9F \xE6\xBC\xA2\xE5\xAD\x97 \xF0\x9F\x98\x80\xF4\x8F\xBF\xBF end");
    EXPECT_EQ(CCConv::fromUTF8Str(utf8), text);
}

// Every kind of malformed input is refused with the failing call's own text
// and the service's code.
TEST(CCConv, MalformedInputIsRefused) {
    const auto refused = [](const std::function<void()>& call, std::u16string function, int code) {
        EXPECT_EQ(messageOf(call), function + u" failed. RC=" + char16_t(u'0' + code));
    };
    const struct {
        const char* name;
        std::string input;
        int code;
    } utf8[] = {
        // clang-format off
        {"truncated two-byte", "ab\xC3", 1}, {"truncated four-byte", "\xF0\x9F\x98", 1},
        {"lone continuation", "a\x80", 2}, {"byte F8", "\xF8\x88\x80\x80\x80", 2},
        {"byte FF", "x\xFF", 2}, {"lead without continuation", "\xE6" "ab", 3},
        {"overlong slash", "\xC0\xAF", 4}, {"overlong NUL", "\xC1\x80", 4},
        {"overlong three-byte", "\xE0\x80\xAF", 4}, {"overlong four-byte", "\xF0\x80\x80\xAF", 4},
        {"encoded high surrogate", "\xED\xA0\x80", 5}, {"encoded low surrogate", "\xED\xBF\xBF", 5},
        {"above U+10FFFF", "\xF4\x90\x80\x80", 6}, {"F5 lead", "\xF5\x80\x80\x80", 6},
        // clang-format on
    };
    for (const auto& row : utf8) {
        SCOPED_TRACE(row.name);
        refused([&] { CCConv::fromUTF8Str(row.input); },
                u"CCConv::Utf8ToUc: Function 'Utf8nToUcnCP'", row.code);
    }
    const struct {
        const char* name;
        std::u16string input;
        int code;
    } utf16[] = {
        {"last high at end", std::u16string(u"ab") + char16_t(0xDBFF), 1},
        {"high before letter", std::u16string(1, char16_t(0xD83D)) + u"x", 7},
        {"low alone", std::u16string(1, char16_t(0xDE00)), 7},
        {"last low alone", std::u16string(1, char16_t(0xDFFF)), 7},
        {"two highs", std::u16string{char16_t(0xD800), char16_t(0xD800)}, 7},
    };
    for (const auto& row : utf16) {
        SCOPED_TRACE(row.name);
        refused([&] { CCConv::toUTF8Str(row.input); },
                u"CCConv::toUTF8Str: Function 'UcnToUtf8nCP'", row.code);
    }
}

TEST(CCConv, TrimAndSubstitute) {
    EXPECT_EQ(CCConv::trim(u"   "), u"");
    EXPECT_EQ(CCConv::trim(u"\ta "), u"\ta");
    EXPECT_EQ(CCConv::trim(u"  x y  "), u"x y");
    EXPECT_EQ(CCConv::stringSubstituteAll(u"aaa", u"a", u"aa"), u"aaaaaa");
    EXPECT_EQ(CCConv::stringSubstituteAll(u"", u"", u"x"), u"x");
    EXPECT_EQ(CCConv::stringSubstituteAll(u"abc", u"", u"x"), u"abc");
    EXPECT_EQ(CCConv::stringSubstituteAll(u"abc", u"abc", u""), u"");
    EXPECT_EQ(CCConv::stringSubstituteAll(u"${h}:${h}", u"${h}", u"host"), u"host:host");
    EXPECT_EQ(CCConv::stringSubstituteAll(u"xyz", u"q", u"w"), u"xyz");
}

TEST(CCConv, ChopSplitsAtTheFirstDelimiter) {
    std::u16string left = u"keep", right = u"keep";
    EXPECT_FALSE(CCConv::chop(u"abc", u"=", left, right));
    EXPECT_FALSE(CCConv::chop(u"a", u"==", left, right));
    EXPECT_EQ(left, u"keep");
    EXPECT_TRUE(CCConv::chop(u"user=a=b", u"=", left, right));
    EXPECT_EQ(left, u"user");
    EXPECT_EQ(right, u"a=b");
    EXPECT_TRUE(CCConv::chop(u"=", u"=", left, right));
    EXPECT_EQ(left, u"");
    EXPECT_EQ(right, u"");
}

const std::regex kStampedLine(R"(^[A-Z][a-z]{2} [A-Z][a-z]{2} \d\d \d\d:\d\d:\d\d \d{4} (.*)$)");

// Numbers at their extremes, and an empty entry: the date and time and one blank.
TEST(CLog, EntriesGoToStdoutAndFileInTheSameOrder) {
    TempDir dir;
    testing::internal::CaptureStdout();
    {
        CLog log;
        log.setFileName(u16(dir / "run.log"));
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
    {
        CLog first;
        first.setFileName(u16(dir / "a.log"));
        first << u"run one" << endlog;
    }
    CLog log;
    log.setFileName(u16(dir / "a.log"));
    log << u"to a" << endlog;
    log.setFileName(u16(dir / "b.log"));
    log << u"to b" << endlog;
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = openFiles();
    log.setFileName(u16(dir / "b.log"));
    EXPECT_EQ(openFiles(), before);  // a host naming its log again must not leak a handle
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
    // Named again once it can be made, the file is opened.
    std::filesystem::create_directory(dir / "missing-dir");
    log.setFileName(u16(path));
    EXPECT_TRUE(log.isOpen());
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

// What the end-to-end failures do not reach: a cut inside a character, sizes beyond MiB.
TEST(Status, LinePartsAtTheirEdges) {
    EXPECT_EQ(oneLine("ab\xC3\xA4", 3), "ab...");
    EXPECT_EQ(oneLine("a\x7f\xC3\xA4", 4), "a\\x7f\xC3\xA4");
    EXPECT_EQ(bytesText(size_t{5} << 30), "5.0 GiB");
}

}  // namespace
}  // namespace kivreg::test
