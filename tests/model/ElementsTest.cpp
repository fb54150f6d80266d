#include <gtest/gtest.h>

#include "model/ModelTestUtil.h"

namespace kivreg {
namespace {

using test::LogCapture;

TEST(CAttr, ValueValidityAndReport) {
    struct Case {
        const char16_t* name;
        const char16_t* value;
        const char16_t* def;
        std::vector<std::u16string> allowed;
        std::u16string shown;
        bool valid;
    };
    const std::vector<std::u16string> flag = {u"TRUE", u"FALSE"};
    const Case cases[] = {
        {u"a", u"MAYBE", u"TRUE", flag, u"MAYBE", true},  // a given value is not checked
        {u"b", u"", u"TRUE", flag, u"TRUE", true},
        {u"c", u"", u"YES", flag, u"YES", false},
        {u"d", u"", u"true", {u"TRUE"}, u"true", false},  // compared with case
        {u"e", u"", u"", {u"A", u""}, u"", true},
        {u"f", u"", u"", {u"A"}, u"", false},
        {u"g", u"", u"", {}, u"", true},    // any value
        {u"", u"v", u"", {}, u"v", false},  // no name
        {u"Gr\u00FC\u00DFe", u"v", u"", {}, u"v", true},
    };
    CClass all(u"All", 0);
    std::vector<std::string> reports;
    for (const Case& c : cases) {
        SCOPED_TRACE(test::u8(c.name));
        CAttr a(c.name, c.value, c.def);
        for (const std::u16string& v : c.allowed) a.addAllowedValue(v);
        EXPECT_EQ(a.getValue(), c.shown);
        EXPECT_EQ(a.isValid(), c.valid);
        all.addAttribute(a);
        if (!c.valid)
            reports.push_back("Attribute '" + test::u8(c.name) + "' has invalid value '" +
                              test::u8(c.shown) + "' assigned.");
    }
    LogCapture cap;  // every invalid attribute is reported, in order
    EXPECT_FALSE(all.validateAttributes(cap));
    EXPECT_EQ(cap.messages(), reports);
    // Attribute names match ignoring case, Latin capitals included; class names do not.
    EXPECT_EQ(all.getAttributeValue(u"B"), u"TRUE");
    EXPECT_EQ(all.getAttributeValue(u"GR\u00DC\u00DFE"), u"v");
    EXPECT_EQ(all.getAttributeValue(u"bx"), u"");
    CGroup g(u"G");
    g.addClass(&all);
    EXPECT_EQ(g.getClass(u"all"), g.getClassEnd());
    EXPECT_NE(g.getClass(u"All"), g.getClassEnd());
}

const std::string kIntro = "On validating associations specified in XML input:\n";
const std::string kGroup =
    "Unknown group referenced (Location: group|assoc_class / Reference: associated group):\n";
const std::string kClass =
    "Unknown class referenced (Location: group|assoc_class / Reference: associated "
    "group|asscociated class):\n";
const std::string kInst =
    "Unknown instance ID specified (Location: group|assoc_class / Reference: associated "
    "group|asscociated class|associated inst ID):\n";

std::string report(const std::string& kind, const std::string& at, const std::string& target) {
    return kIntro + kind + "(1) Location: " + at + "\n(2) Reference: " + target;
}

// Groups G (classes C, C, D) and g (class C); the references sit in instance "src" of class S in G.
std::string docWith(const std::string& references) {
    return "<kivinfo supplier_name='S'><group name='G'><class name='C'><instance inst_id='1'/>"
           "<instance inst_id=''/></class><class name='C'><instance inst_id='2'/></class>"
           "<rootclass name='D'><instance inst_id='1'/></rootclass><memberclass name='S'>"
           "<instance inst_id='src'>" +
           references +
           "</instance></memberclass></group>"
           "<group name='g'><class name='C'><instance inst_id='x'/></class></group></kivinfo>";
}

std::string ref(const char* role, const char* g, const char* c, const char* id) {
    return std::string("<reference rolename='") + role + "' groupname='" + g + "' classname='" + c +
           "' inst_id='" + id + "'/>";
}

TEST(ValidateReferences, Reports) {
    struct Case {
        const char* what;
        std::string doc;
        std::string report;  // empty: valid
    };
    const Case cases[] = {
        {"all resolve",
         docWith(ref("a", "G", "C", "1") + ref("b", "g", "C", "x") + ref("c", "G", "C", "")), ""},
        {"unknown group", docWith(ref("a", "X", "C", "1")), report(kGroup, "G|S", "X")},
        {"group compared with case", docWith(ref("a", "g", "D", "1")),
         report(kClass, "G|S", "g|D")},
        {"unknown instance", docWith(ref("a", "G", "D", "2")), report(kInst, "G|S", "G|D|2")},
        {"only the first class of a name counts", docWith(ref("a", "G", "C", "2")),
         report(kInst, "G|S", "G|C|2")},
        {"empty names resolve nothing", docWith(ref("a", "", "", "")), report(kGroup, "G|S", "")},
        {"one report per instance, smallest role first",
         docWith(ref("zz", "X", "C", "1") + ref("b", "G", "Q", "1") + ref("a", "G", "C", "1")),
         report(kClass, "G|S", "G|Q")},
        {"every failing instance, against the last group of a name",
         "<kivinfo supplier_name='S'><group name='G'><class name='A'><instance inst_id='1'>" +
             ref("r", "G", "A", "1") + "</instance><instance inst_id='2'>" +
             ref("r", "G", "B", "1") +
             "</instance></class></group><group name='G'><class name='B'><instance inst_id='1'>" +
             ref("r", "G", "B", "9") + "</instance></class></group></kivinfo>",
         report(kClass, "G|A", "G|A") + "\n" + report(kInst, "G|B", "G|B|9")},
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

}  // namespace
}  // namespace kivreg
