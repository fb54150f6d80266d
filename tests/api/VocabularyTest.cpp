#include <gtest/gtest.h>

#include <regex>

#include "api/Vocabulary.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

TEST(Vocabulary, HelpAndVersionTexts) {
    const std::string expected = test::readFile(KIVREG_TEST_DATA_DIR "/usage.txt");
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(test::u8(std::u16string(PROGRAM_USAGE)), expected);
    EXPECT_EQ(std::count(expected.begin(), expected.end(), '\n'), 51);
    // The version line is built from its parts.
    EXPECT_TRUE(std::regex_match(test::u8(std::u16string(PROGRAM_VERSION)),
                                 std::regex(R"( \[\d+\.\d+\.\d+\] )")));
    EXPECT_TRUE(std::regex_match(test::u8(std::u16string(PROGRAM_DATE)),
                                 std::regex(R"([A-Z][a-z]{2} [ 1-3]\d \d{4})")));
    EXPECT_TRUE(
        std::regex_match(test::u8(std::u16string(PROGRAM_TIME)), std::regex(R"(\d\d:\d\d:\d\d)")));
    EXPECT_EQ(std::u16string(PROGRAM_ID), std::u16string(PROGRAM_VERSION) + u" (" +
                                              std::u16string(PROGRAM_DATE) + u") [Unicode]");
}

}  // namespace
}  // namespace kivreg
