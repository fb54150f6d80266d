#include <gtest/gtest.h>

#include "model/CXmlFile.h"
#include "model/ModelTestUtil.h"

namespace kivreg {
namespace {

using test::LogCapture;
using test::TempDir;
using test::u16;
using test::u8;
using Lines = std::vector<std::string>;

const Lines kHeader = {"Parsing XML document.", "Supplier Name: S", "Supplier Version: ",
                       "Supplier Vendor: ", "CIM Model Version: "};

Lines withHeader(Lines tail) {
    Lines all = kHeader;
    all.insert(all.end(), tail.begin(), tail.end());
    return all;
}

TEST(CXmlFileLoad, FailureMessagesOfTheLoader) {
    struct Case {
        const char* what;
        const char* doc;
        Lines messages;
        size_t groupsKept;
    };
    const Case cases[] = {
        {"root name compared with case", "<KIVINFO supplier_name='S'/>",
         {"Parsing XML document.", "Invalid XML root element found: KIVINFO",
          "Failed to parse input data.", "Failed to load and parse XML input."},
         0},
        {"prefixed root", "<x:kivinfo xmlns:x='urn:x' supplier_name='S'/>",
         {"Parsing XML document.", "Invalid XML root element found: x:kivinfo",
          "Failed to parse input data.", "Failed to load and parse XML input."},
         0},
        {"no supplier name", "<kivinfo supplier_version='1'/>",
         {"Parsing XML document.", "Supplier name attribute value missing in root element.",
          "Failed to parse input data.", "Failed to load and parse XML input."},
         0},
        {"group without name after a good one",
         "<kivinfo supplier_name='S'><group name='A'/><group name=''/><group name='C'/></kivinfo>",
         withHeader({"Group name attribut not specified.", "", "Failed to parse input data.",
                     "Failed to load and parse XML input."}),
         1},
        {"class without name drops its group",
         "<kivinfo supplier_name='S'><group name='A'/><group name='B'><class name='ok'/>"
         "<memberclass/></group></kivinfo>",
         withHeader({"Class attribute name not set.", "", "Failed to parse input data.",
                     "Failed to load and parse XML input."}),
         1},
        {"malformed", "<kivinfo supplier_name='S'>\n  <group name='A'>\n</kivinfo>",
         {"Parse error on XML file.",
          "Fatal Error: Opening and ending tag mismatch: group line 2 and kivinfo", " entity=",
          " in line 3, 11", "Parse error on XML file.",
          "Fatal Error: Premature end of data in tag kivinfo line 1", " entity=", " in line 3, 11",
          "Failed to load and parse XML input."},
         0},
        {"empty text", "",
         {"Parse error on XML file.", "Fatal Error: Document is empty", " entity=", " in line 1, 1",
          "Failed to load and parse XML input."},
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture cap;
        auto file = test::loadText(cap, c.doc);
        EXPECT_FALSE(file->isLoaded());
        EXPECT_EQ(cap.messages(), c.messages);
        EXPECT_EQ(file->groups().size(), c.groupsKept);
    }
}

TEST(CXmlFileLoad, FileThatCannotBeOpened) {
    TempDir dir;
    for (const std::string& name : {(dir / "missing.xml").string(), dir.path().string()}) {
        SCOPED_TRACE(name);
        LogCapture cap;
        CXmlFile file(cap, u16(name));
        EXPECT_FALSE(file.isLoaded());
        EXPECT_EQ(cap.messages(), (Lines{"Failed to create XML input stream.",
                                         "Check file existence: " + name,
                                         "Failed to load and parse XML input file: " + name}));
    }
}

TEST(CXmlFileLoad, ParseErrorInAFileNamesTheFile) {
    TempDir dir;
    const std::string name = (dir / "bad.xml").string();
    test::writeFile(name, "<kivinfo supplier_name='S'>\n<group name='a' name='b'/></kivinfo>");
    LogCapture cap;
    CXmlFile file(cap, u16(name));
    EXPECT_FALSE(file.isLoaded());
    EXPECT_EQ(cap.messages(), (Lines{"Parse error on XML file.",
                                     "Fatal Error: Attribute name redefined", " entity=" + name,
                                     " in line 2, 25", "Failed to load and parse XML input file: " + name}));
}

TEST(CXmlFileLoad, TextThatIsNotUnicodeIsAConversionFailure) {
    LogCapture cap;
    CXmlFile file(cap, std::u16string(u"<kivinfo supplier_name='\xD800'/>"), 0);
    EXPECT_FALSE(file.isLoaded());
    EXPECT_EQ(cap.messages(), (Lines{"4: CCConv::toUTF8Str: Function 'UcnToUtf8nCP' failed. RC=7",
                                     "Failed to load and parse XML input."}));
}

TEST(CXmlFileLoad, HeaderAndSkippedContent) {
    LogCapture cap;
    auto file = test::loadText(cap,
                               "<?xml version='1.0'?><!-- c --><kivinfo supplier_name='S'>text"
                               "<foo><group name='hidden'/></foo><group name='G'>x<!-- c -->"
                               "<bar/><class name='C'><other/><instance inst_id='1'><junk/>"
                               "</instance></class></group></kivinfo>");
    ASSERT_TRUE(file->isLoaded());
    EXPECT_EQ(cap.messages(), kHeader);
    EXPECT_EQ(file->getSupplierName(), u"S");
    EXPECT_EQ(file->getSupplierVersion(), u"");
    EXPECT_EQ(file->getModelVersion(), u"");
    ASSERT_EQ(file->groups().size(), 1u);
    ASSERT_EQ(file->groups()[0].getClassCount(), 1u);
    EXPECT_EQ(file->groups()[0].classes()[0].getInstanceCount(), 1u);
}

TEST(CXmlFileLoad, SameGroupNameTwiceKeepsBothResolvesToTheLast) {
    LogCapture cap;
    auto file = test::loadText(cap,
                               "<kivinfo supplier_name='S'><group name='G' data_type='one'/>"
                               "<group name='G' data_type='two'/></kivinfo>");
    ASSERT_TRUE(file->isLoaded());
    ASSERT_EQ(file->groups().size(), 2u);
    ASSERT_NE(file->findGroup(u"G"), nullptr);
    EXPECT_EQ(file->findGroup(u"G")->getAttributeValue(u"data_type"), u"two");
    EXPECT_EQ(file->findGroup(u"g"), nullptr);
    EXPECT_FALSE(file->hasGroupOfType(u"SPECIFIC"));
    EXPECT_TRUE(file->hasGroupOfType(u"GENERIC"));
}

TEST(CXmlFileLoad, ValueTextIsNormalisedAttributesAreNot) {
    const std::pair<std::u16string, std::u16string> values[] = {
        {u"  a\r\n\tb  ", u"a b"},
        {u"", u""},
        {u"\t", u""},
        {u"one  two\tthree", u"one two three"},
        {u"line\nbreak", u"linebreak"},
        {u"\u00E9t\u00E9", u"\u00E9t\u00E9"},
    };
    for (const auto& [in, out] : values) {
        SCOPED_TRACE(u8(in));
        EXPECT_EQ(CXmlFile::trimValue(in), out);
    }

    LogCapture cap;
    auto file = test::loadText(cap,
                               "<kivinfo supplier_name=' S  '><group name='G'><class name='C'>"
                               "<instance inst_id=' i '><property name='P' sourceformat=' f '>"
                               "<value>  a\r\n\tb  </value><value/><value>x<b>y</b>&amp;z</value>"
                               "<value><![CDATA[<raw>]]></value></property></instance></class>"
                               "</group></kivinfo>");
    ASSERT_TRUE(file->isLoaded());
    EXPECT_EQ(file->getSupplierName(), u" S  ");
    const CInst& inst = file->groups()[0].classes()[0].instances()[0];
    EXPECT_EQ(inst.getId(), u" i ");
    const CProp& p = inst.getProperty(u"P")->second;
    EXPECT_EQ(p.getSourceformat(), u" f ");
    EXPECT_EQ(p.values(), (std::vector<std::u16string>{u"a b", u"", u"xy&z", u"<raw>"}));
}

TEST(CXmlFileLoad, EncodingOfTextAndFile) {
    // A text is already Unicode: the declared encoding does not apply.
    LogCapture cap;
    auto text = test::loadText(cap, "<?xml version='1.0' encoding='ISO-8859-1'?>"
                                    "<kivinfo supplier_name='M\xC3\xBCnchen'/>");
    ASSERT_TRUE(text->isLoaded());
    EXPECT_EQ(text->getSupplierName(), u"M\u00FCnchen");

    // A file is read in the encoding it declares.
    TempDir dir;
    test::writeFile(dir / "latin1.xml", "<?xml version='1.0' encoding='ISO-8859-1'?>"
                                        "<kivinfo supplier_name='M\xFCnchen'/>");
    CXmlFile file(cap, u16(dir / "latin1.xml"));
    ASSERT_TRUE(file.isLoaded());
    EXPECT_EQ(file.getSupplierName(), u"M\u00FCnchen");
}

}  // namespace
}  // namespace kivreg
