#include <gtest/gtest.h>

#include "model/CXmlFile.h"
#include "model/ModelTestUtil.h"

namespace kivreg {
namespace {

using test::LogCapture;

const std::string kIntro = "On validating associations specified in XML input:\n";
const std::string kGroup =
    "Unknown group referenced (Location: group|assoc_class / Reference: associated group):\n";
const std::string kClass =
    "Unknown class referenced (Location: group|assoc_class / Reference: associated "
    "group|asscociated class):\n";
const std::string kInst =
    "Unknown instance ID specified (Location: group|assoc_class / Reference: associated "
    "group|asscociated class|associated inst ID):\n";

// A document with groups G (classes C, D) and g (class C); references are
// placed in instance "src" of class S in group G.
std::string docWith(const std::string& references, const std::string& extra = "") {
    return "<kivinfo supplier_name='S'><group name='G'><class name='C'><instance inst_id='1'/>"
           "<instance inst_id=''/></class><class name='C'><instance inst_id='2'/></class>"
           "<rootclass name='D'><instance inst_id='1'/></rootclass>"
           "<memberclass name='S'><instance inst_id='src'>" + references +
           "</instance></memberclass></group><group name='g'><class name='C'>"
           "<instance inst_id='x'/></class></group>" + extra + "</kivinfo>";
}

std::string ref(const std::string& role, const std::string& g, const std::string& c,
                const std::string& id) {
    return "<reference rolename='" + role + "' groupname='" + g + "' classname='" + c +
           "' inst_id='" + id + "'/>";
}

TEST(ValidateReferences, Reports) {
    struct Case {
        const char* what;
        std::string doc;
        std::string report;  // empty: valid
    };
    const Case cases[] = {
        {"no references", docWith(""), ""},
        {"all resolve", docWith(ref("a", "G", "C", "1") + ref("b", "g", "C", "x") + ref("c", "G", "C", "")), ""},
        {"unknown group", docWith(ref("a", "X", "C", "1")),
         kIntro + kGroup + "(1) Location: G|S\n(2) Reference: X"},
        {"group compared with case", docWith(ref("a", "g", "D", "1")),
         kIntro + kClass + "(1) Location: G|S\n(2) Reference: g|D"},
        {"unknown instance", docWith(ref("a", "G", "D", "2")),
         kIntro + kInst + "(1) Location: G|S\n(2) Reference: G|D|2"},
        {"only the first class of a name counts", docWith(ref("a", "G", "C", "2")),
         kIntro + kInst + "(1) Location: G|S\n(2) Reference: G|C|2"},
        {"empty names resolve nothing", docWith(ref("a", "", "", "")),
         kIntro + kGroup + "(1) Location: G|S\n(2) Reference: "},
        {"one report per instance, smallest role first",
         docWith(ref("zz", "X", "C", "1") + ref("b", "G", "Q", "1") + ref("a", "G", "C", "1")),
         kIntro + kClass + "(1) Location: G|S\n(2) Reference: G|Q"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture cap;
        auto file = test::loadText(cap, c.doc);
        ASSERT_TRUE(file->isLoaded());
        const size_t before = cap.messages().size();
        EXPECT_EQ(file->validateReferences(), c.report.empty());
        EXPECT_EQ(test::loggedSince(cap, before), c.report);
    }
}

TEST(ValidateReferences, EveryFailingInstanceIsReportedAgainstTheLastGroupOfAName) {
    LogCapture cap;
    auto file = test::loadText(
        cap, "<kivinfo supplier_name='S'>"
             "<group name='G'><class name='A'><instance inst_id='1'>" + ref("r", "G", "A", "1") +
             "</instance><instance inst_id='2'>" + ref("r", "G", "B", "1") + "</instance></class></group>"
             "<group name='G'><class name='B'><instance inst_id='1'>" + ref("r", "G", "B", "9") +
             "</instance></class></group></kivinfo>");
    ASSERT_TRUE(file->isLoaded());
    const size_t before = cap.messages().size();
    EXPECT_FALSE(file->validateReferences());
    // The first group's class A is not reachable by name: the second G stands for both.
    EXPECT_EQ(test::loggedSince(cap, before),
              kIntro + kClass + "(1) Location: G|A\n(2) Reference: G|A\n" +
                  kIntro + kInst + "(1) Location: G|B\n(2) Reference: G|B|9");
}

}  // namespace
}  // namespace kivreg
