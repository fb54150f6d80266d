#include <gtest/gtest.h>

#include "model/ModelTestUtil.h"

namespace kivreg {
namespace {

using test::LogCapture;

TEST(CAttr, ValueValidityAndReport) {
    struct Case {
        const char* what;
        const char16_t* name;
        const char16_t* value;
        const char16_t* def;
        std::vector<std::u16string> allowed;
        std::u16string shown;
        bool valid;
    };
    const Case cases[] = {
        {"given value outside the allowed list",
         u"a",
         u"MAYBE",
         u"TRUE",
         {u"TRUE", u"FALSE"},
         u"MAYBE",
         true},
        {"default in the allowed list", u"b", u"", u"TRUE", {u"TRUE", u"FALSE"}, u"TRUE", true},
        {"default outside the allowed list", u"c", u"", u"YES", {u"TRUE", u"FALSE"}, u"YES", false},
        {"default compared with case", u"d", u"", u"true", {u"TRUE"}, u"true", false},
        {"no default, empty admitted", u"e", u"", u"", {u"A", u""}, u"", true},
        {"no default, empty not admitted", u"f", u"", u"", {u"A"}, u"", false},
        {"any value", u"g", u"", u"", {}, u"", true},
        {"no name", u"", u"v", u"", {}, u"v", false},
    };
    CClass all(u"All", 0);
    std::vector<std::string> reports;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
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
}

TEST(CBaseElem, AttributeNamesIgnoreCaseClassNamesDoNot) {
    CGroup g(u"G");
    g.addAttribute(u"sync", u"", u"TRUE");
    g.addAttribute(u"Gr\u00FC\u00DFe", u"v");
    EXPECT_EQ(g.getAttributeValue(u"SYNC"), u"TRUE");
    EXPECT_EQ(g.getAttributeValue(u"GR\u00DC\u00DFE"), u"v");  // Latin capitals fold too
    EXPECT_EQ(g.getAttributeValue(u"syncx"), u"");
    CClass upper(u"C", CClass::TYPE_CLASS);
    g.addClass(&upper);
    EXPECT_EQ(g.getClass(u"c"), g.getClassEnd());
    EXPECT_NE(g.getClass(u"C"), g.getClassEnd());
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

// Groups G (classes C, C, D) and g (class C); the references sit in instance "src" of class S in G.
std::string docWith(const std::string& references) {
    return "<kivinfo supplier_name='S'><group name='G'><class name='C'><instance inst_id='1'/>"
           "<instance inst_id=''/></class><class name='C'><instance inst_id='2'/></class>"
           "<rootclass name='D'><instance inst_id='1'/></rootclass><memberclass name='S'><instance "
           "inst_id='src'>" +
           references +
           "</instance></memberclass></group><group name='g'><class name='C'><instance "
           "inst_id='x'/>"
           "</class></group></kivinfo>";
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
        {"all resolve",
         docWith(ref("a", "G", "C", "1") + ref("b", "g", "C", "x") + ref("c", "G", "C", "")), ""},
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
        {"every failing instance, against the last group of a name",
         "<kivinfo supplier_name='S'><group name='G'><class name='A'><instance inst_id='1'>" +
             ref("r", "G", "A", "1") + "</instance><instance inst_id='2'>" +
             ref("r", "G", "B", "1") +
             "</instance></class></group>"
             "<group name='G'><class name='B'><instance inst_id='1'>" +
             ref("r", "G", "B", "9") + "</instance></class></group></kivinfo>",
         kIntro + kClass + "(1) Location: G|A\n(2) Reference: G|A\n" + kIntro + kInst +
             "(1) Location: G|B\n(2) Reference: G|B|9"},
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
