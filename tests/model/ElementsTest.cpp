#include <gtest/gtest.h>

#include "model/ModelTestUtil.h"

namespace kivreg::test {
namespace {

TEST(CAttr, ValueValidityAndReport) {
    struct Case {
        const char* name;
        const char* value;
        const char* def;
        std::vector<std::string> allowed;
        std::string shown;
        bool valid;
    };
    const std::vector<std::string> flag = {"TRUE", "FALSE"};
    const Case cases[] = {
        {"a", "MAYBE", "TRUE", flag, "MAYBE", true},  // a given value is not checked
        {"b", "", "TRUE", flag, "TRUE", true},
        {"c", "", "YES", flag, "YES", false},
        {"d", "", "true", {"TRUE"}, "true", false},  // compared with case
        {"e", "", "", {"A", ""}, "", true},
        {"f", "", "", {"A"}, "", false},
        {"g", "", "", {}, "", true},    // any value
        {"", "v", "", {}, "v", false},  // no name
    };
    CClass all("All", 0);
    std::vector<std::string> reports;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CAttr a(c.name, c.value, c.def);
        for (const std::string& v : c.allowed) a.addAllowedValue(v);
        EXPECT_EQ(a.getValue(), c.shown);
        EXPECT_EQ(a.isValid(), c.valid);
        all.addAttribute(a);
        if (!c.valid)
            reports.push_back("Attribute '" + std::string(c.name) + "' has invalid value '" +
                              c.shown + "' assigned.");
    }
    LogCapture cap;  // every invalid attribute is reported, in order
    EXPECT_FALSE(all.validateAttributes(cap));
    EXPECT_EQ(cap.messages(), reports);
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

TEST(TransferBody, GoldenDocuments) {
    // Each document NAME.xml is rendered into NAME.body.xml and NAME.old.xml; with
    // the symbols of NAME.properties replaced first when it has them.
    const std::pair<std::string, bool> cases[] = {
        {"realistic", false}, {"all_attributes", false}, {"symbols", true}};
    for (const auto& [name, symbols] : cases) {
        for (const bool old : {false, true}) {
            SCOPED_TRACE(name + (old ? " (old format)" : ""));
            LogCapture cap;
            CXmlFile file(cap, u16(modelData(name + ".xml")));
            ASSERT_TRUE(file.isLoaded()) << cap.text();
            EXPECT_TRUE(file.validateReferences()) << cap.text();
            if (symbols) {
                ASSERT_GT(file.bodySize(), 0u);  // counted before, so counted again after
                PSymbols table(cap);
                ASSERT_EQ(table.addSymbols(u16(modelData(name + ".properties"))), 1);
                file.setSymbols(table);
                EXPECT_TRUE(file.replaceSymbols()) << cap.text();
            }
            file.setOldTransferDtd(old);
            const std::string golden =
                test::readFile(modelData(name + (old ? ".old.xml" : ".body.xml")));
            EXPECT_EQ(test::body(file), golden);
            EXPECT_EQ(file.bodySize(), golden.size());
            // Sent in pieces: the same bytes after the head, every piece but
            // the last full, whether pieces end inside an entity or a name.
            for (const size_t piece : {size_t{1}, size_t{7}, size_t{4096}}) {
                std::vector<std::string> pieces;
                EXPECT_TRUE(file.writeBody("<?head?>", piece, [&](std::string_view p) {
                    pieces.emplace_back(p);
                    return true;
                }));
                std::string joined;
                for (size_t i = 0; i < pieces.size(); ++i) {
                    if (i + 1 < pieces.size()) {
                        EXPECT_EQ(pieces[i].size(), piece);
                    }
                    joined += pieces[i];
                }
                EXPECT_EQ(joined, "<?head?>" + golden) << piece;
            }
            int handed = 0;
            EXPECT_FALSE(file.writeBody({}, 16, [&](std::string_view) { return ++handed < 2; }));
            EXPECT_EQ(handed, 2) << "no piece after a refused one";
        }
    }
}

// Property names and roles order by 16-bit units, which puts a character
// above U+FFFF before one from U+E000 (the reverse of UTF-8 byte order), and
// the last of a name or role wins; in both formats.
TEST(TransferBody, OrderBySixteenBitUnits) {
    const std::string privateUse = "\xEE\x80\x80", astral = "\xF0\x9F\x98\x80",
                      special = "\xEF\xBF\xBD", twoByte = "\xC3\xA9", cjk = "\xE6\xBC\xA2";
    // In 16-bit unit order, each name a one of its own and one after "a".
    std::vector<std::string> order;
    for (const std::string& n :
         {std::string("Z"), std::string("a"), twoByte, cjk, astral, privateUse, special})
        for (const std::string& name : {n, "a" + n}) order.push_back(name);
    std::sort(order.begin(), order.end(),
              [](const std::string& x, const std::string& y) { return u16(x) < u16(y); });
    std::string doc =
        "<kivinfo supplier_name='S'><group name='G'><class name='C'><instance>"
        "<property name='" +
        astral +
        "'><value>first</value></property>"
        "<reference rolename='" +
        astral + "' classname='first'/>";
    for (size_t i = order.size(); i-- > 0;)  // written backwards, sorted on reading
        doc += "<property name='" + order[i] +
               "'><value>v</value></property><reference rolename='" + order[i] +
               "' classname='c'/>";
    LogCapture cap;
    auto file = test::loadText(cap, doc + "</instance></class></group></kivinfo>");
    ASSERT_TRUE(file->isLoaded()) << cap.text();
    for (const bool old : {false, true}) {
        SCOPED_TRACE(old ? "old format" : "current format");
        file->setOldTransferDtd(old);
        const std::string body = test::body(*file);
        size_t prop = 0, role = 0;
        for (const std::string& n : order) {
            const size_t p = body.find("<property name=\"" + n + "\">");
            const size_t r = body.find("rolename=\"" + n + "\"");
            ASSERT_NE(p, std::string::npos) << n;
            ASSERT_NE(r, std::string::npos) << n;
            EXPECT_GT(p, prop) << n;
            EXPECT_GT(r, role) << n;
            prop = p;
            role = r;
        }
        EXPECT_EQ(body.find("first"), std::string::npos) << body;
    }
}

// The five characters are escaped wherever they stand in a value, beside
// characters of two, three and four bytes too; the older format escapes only
// what the document cannot hold otherwise.
TEST(TransferBody, EscapesTheFiveCharactersAnywhereInAValue) {
    const struct {
        std::string value, escaped, old;
    } cases[] = {
        {"&x<", "&amp;x&lt;", "&amp;x&lt;"},
        {"'\xC3\xA9\"", "&apos;\xC3\xA9&quot;", "'\xC3\xA9\""},
        {"\xE6\xBC\xA2>\xF0\x9F\x98\x80&\xC3\xA9", "\xE6\xBC\xA2&gt;\xF0\x9F\x98\x80&amp;\xC3\xA9",
         "\xE6\xBC\xA2>\xF0\x9F\x98\x80&amp;\xC3\xA9"},
        {"\xF0\x9F\x98\x80<>&\"'", "\xF0\x9F\x98\x80&lt;&gt;&amp;&quot;&apos;",
         "\xF0\x9F\x98\x80&lt;>&amp;\"'"},
        {"a&amp;b", "a&amp;amp;b", "a&amp;amp;b"},
        {">]]>]>]]]>", "&gt;]]&gt;]&gt;]]]&gt;", ">]]&gt;]>]]]&gt;"},  // no CDATA end in text
    };
    for (const auto& [value, escaped, old] : cases) {
        SCOPED_TRACE(value);
        std::string text;  // the value as the document writes it
        for (char c : value)
            text += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
        LogCapture cap;
        auto file =
            test::loadText(cap,
                           "<kivinfo supplier_name='S'><group name='G'><class name='C'>"
                           "<instance><property name='p'><value>" +
                               text + "</value></property></instance></class></group></kivinfo>");
        ASSERT_TRUE(file->isLoaded()) << cap.text();
        EXPECT_NE(test::body(*file).find("<value>" + escaped + "</value>"), std::string::npos);
        file->setOldTransferDtd(true);
        EXPECT_NE(test::body(*file).find("<value>" + old + "</value>"), std::string::npos);
    }
}

TEST(DataTrace, DumpLines) {
    LogCapture cap;
    auto file = test::loadText(
        cap,
        "<kivinfo supplier_name='S' model_version='M'><group name='G' group_type='SPECIFIC'>"
        "<class name='C'><instance inst_id='x'><property name='b'><value>a&amp;b</value></property>"
        "<property name='A' sourceformat='f'/><reference rolename='r' groupname='G' classname='C'/>"
        "</instance><instance inst_id='y'/></class><rootclass name='R'/></group></kivinfo>");
    const size_t before = cap.messages().size();
    file->write2File();
    EXPECT_EQ(
        test::loggedSince(cap, before),
        "Supplier Name: S\nSupplier Version: \nSupplier Vendor: \nModel Version: M\n"
        "Group Name: G[Class count: 2]\n"
        "  Attribute: data_type: \n  Attribute: data_version: \n  Attribute: group_type: SPECIFIC\n"
        "Class name: C[Instances count: 2]\n"
        "  Attribute: sync: TRUE\n  Attribute: merge_properties: TRUE\n  Attribute: clean: NONE\n"
        "  Instance Number: 0\n"
        "    Property: A\n      Source format: f\n"
        "    Property: b\n      Parsed Value: a&b\n      Output Value: a&amp;b\n"
        "    Reference (role): r\n      Group/Class/instId  : G/C/\n"
        "  Instance Number: 1\n"
        "Root class name: R[Instances count: 0]\n"
        "  Attribute: sync: FALSE\n  Attribute: merge_roots: TRUE\n"
        "  Attribute: merge_properties: TRUE\n  Attribute: clean: NONE");
}

}  // namespace
}  // namespace kivreg::test
