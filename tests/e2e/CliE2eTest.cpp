// The program's own command line: long options beside the classic ones.
#include <gtest/gtest.h>

#include "E2eFixture.h"

namespace kivreg::test {
namespace {

using Cli = E2e;

TEST_F(Cli, LongOptionsAreTakenApartFromTheClassicOnes) {
    const std::string usage = readFile(KIVREG_TEST_DATA_DIR "/usage.txt");
    ASSERT_FALSE(usage.empty());

    RunResult r = kivreg({"--help"});
    EXPECT_EQ(r.exitCode, 0);
    ASSERT_TRUE(r.out.starts_with(usage + "\nExtensions:\n")) << r.out;
    EXPECT_NE(r.out.find("\n--retry <n>         : "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\n--retry-max-time <s> : "), std::string::npos) << r.out;
    EXPECT_EQ(kivreg({"-help"}).out, usage);  // classic help unchanged
    EXPECT_EQ(kivreg({"--version"}).out, kivreg({"-version"}).out);

    struct Refused {
        std::vector<std::string> args;
        std::string message;
    };
    for (const Refused& c : std::vector<Refused>{
             // Refused before anything else is done: -help is not reached.
             {{"-help", "--xyz=1"}, "Unknown option --xyz (kivreg --help lists the options).\n"},
             {{"--", "-help"}, "Unknown option -- (kivreg --help lists the options).\n"},
             {{"--retry"}, "Option --retry needs a value <n>.\n"},
             {{"--check=yes"}, "Option --check takes no value.\n"},
         }) {
        r = kivreg(c.args);
        EXPECT_EQ(r.exitCode, 1) << c.args[0];
        EXPECT_EQ(r.out, c.message);
    }
    // A classic value option takes the next argument even when it looks long;
    // a long option's value is never seen by the classic parser.
    r = kivreg({"-logfile", "--help", "--check", "-version"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.out.starts_with("KIV Registration Program\n")) << r.out;
    r = kivreg({"--output", "-help", "--version"});
    EXPECT_TRUE(r.out.starts_with("KIV Registration Program\n")) << r.out;
}

}  // namespace
}  // namespace kivreg::test
