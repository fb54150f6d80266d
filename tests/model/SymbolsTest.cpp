#include <gtest/gtest.h>

#include "model/CXmlFile.h"
#include "model/ModelTestUtil.h"
#include "model/PSymbols.h"

namespace kivreg {
namespace {

using test::LogCapture;
using test::TempDir;
using test::u16;
using test::u8;
using Lines = std::vector<std::string>;

TEST(PSymbols, LineRules) {
    struct Case {
        const char16_t* line;
        int rc;
        const char16_t* name;  // null: nothing defined
        const char16_t* value;
    };
    const Case cases[] = {
        {u"  host  =   abc  \r\n", 1, u"host", u"abc"},
        {u"a=b=c", 1, u"a", u"b=c"},
        {u"\tname\t=\tv w\t\n", 1, u"name", u"v w"},
        {u"=value", 1, u"", u"value"},
        {u"empty=", 1, u"empty", u""},
        {u"#x=1", 1, nullptr, nullptr},
        {u"", 1, nullptr, nullptr},
        {u" \t \r\n", 1, nullptr, nullptr},
        {u" #comment", -2, nullptr, nullptr},
        {u"novalue\n", -2, nullptr, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(u8(c.line));
        LogCapture cap;
        PSymbols s(cap);
        EXPECT_EQ(s.addSymbol(c.line), c.rc);
        if (c.name == nullptr) {
            EXPECT_EQ(s.getSymbolCount(), 0u);
        } else {
            ASSERT_EQ(s.getSymbolCount(), 1u);
            EXPECT_EQ(s.symbols()[0].getName(), c.name);
            EXPECT_EQ(s.symbols()[0].getValue(), c.value);
        }
    }
    LogCapture cap;
    PSymbols s(cap);
    s.addSymbol(u" bad line \t\r\n");
    EXPECT_EQ(cap.messages(), Lines{"Syntax error in symbol line: \" bad line\"."});
}

TEST(PSymbols, RedefinitionMovesToTheEndAndPrints) {
    LogCapture cap;
    PSymbols s(cap);
    s.addSymbol(u"x", u"1");
    s.addSymbol(u"y", u"2");
    s.addSymbol(u"x", u"3");
    EXPECT_EQ(s.getSymbolValue(u"x"), u"3");
    EXPECT_EQ(s.getSymbolValue(u"X"), u"");
    EXPECT_EQ(s.getSymbolValueIgnCase(u"X"), u"3");
    s.printSymbols();
    EXPECT_EQ(cap.messages(),
              (Lines{"########################", "### Table of Symbols ###", "########################",
                     "### y = \"2\"", "### x = \"3\"", "########################"}));
    s.removeSymbol(u"x");
    EXPECT_EQ(s.getSymbolCount(), 1u);
}

TEST(PSymbols, Replacement) {
    LogCapture cap;
    PSymbols s(cap);
    for (const char16_t* line : {u"a=${b}", u"b=1", u"late=${early}", u"early=E", u"self=<${self}>",
                                 u"lower=l", u"x=X",
                                 u"first=F", u"second=${first}"})
        ASSERT_EQ(s.addSymbol(line), 1);
    const std::pair<std::u16string, std::u16string> cases[] = {
        {u"${a}", u"1"},
        {u"${late}", u"E"},
        {u"${second}", u"F"},  // needs a second pass
        {u"${LOWER} ${lower}", u"${LOWER} l"},
        {u"${undefined}", u"${undefined}"},
        {u"${x}${x}$x {x}", u"XX$x {x}"},
        {u"no placeholder", u"no placeholder"},
        {u"${self}", std::u16string(100, u'<') + u"${self}" + std::u16string(100, u'>')},
    };
    for (const auto& [in, out] : cases) {
        SCOPED_TRACE(u8(in));
        EXPECT_EQ(s.replaceSymbols(in), out);
    }
}

TEST(PSymbols, Files) {
    TempDir dir;
    struct Case {
        const char* what;
        std::string content;
        int rc;
        size_t count;
        Lines messages;
    };
    const std::string path = (dir / "s.properties").string();
    const Case cases[] = {
        {"empty file", "", 1, 0, {}},
        {"definitions, comments, CRLF", "# c\r\na = 1\r\n\r\nb=\xC3\xA4\n", 1, 2, {}},
        {"syntax error stops reading", "a=1\noops\nb=2\n", -2, 1,
         {"Syntax error in symbol line: \"oops\"."}},
        {"malformed UTF-8 is a read error", "a=1\nb=2\nc=\xFF\nd=4\n", -11, 2,
         {"Read error in symbol file \"" + path + "\", line 2."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        test::writeFile(path, c.content);
        LogCapture cap;
        PSymbols s(cap);
        EXPECT_TRUE(PSymbols::checkSymbolFile(u16(path)));
        EXPECT_EQ(s.addSymbols(u16(path)), c.rc);
        EXPECT_EQ(s.getSymbolCount(), c.count);
        EXPECT_EQ(cap.messages(), c.messages);
    }

    LogCapture cap;
    PSymbols s(cap);
    const std::string missing = (dir / "missing").string();
    EXPECT_FALSE(PSymbols::checkSymbolFile(u16(missing)));
    EXPECT_EQ(s.addSymbols(u16(missing)), -10);
    EXPECT_EQ(cap.messages(), Lines{"Failed to open symbol file \"" + missing + "\"."});
}

TEST(PSymbols, OverlongLinesAreReadInPieces) {
    TempDir dir;
    // 65535 units make one piece; the rest of the line is a piece of its own.
    const std::string name(65530, 'n');
    test::writeFile(dir / "long", name + "=abcde" + "tail=1\nnext=2\n");
    LogCapture cap;
    PSymbols s(cap);
    EXPECT_EQ(s.addSymbols(u16(dir / "long")), 1);
    EXPECT_EQ(s.getSymbolValue(u16(name)), u"abcd");
    EXPECT_EQ(s.getSymbolValue(u"etail"), u"1");
    EXPECT_EQ(s.getSymbolValue(u"next"), u"2");
}

TEST(CXmlFileSymbols, ReplacedWhereAllowedAndNowhereElse) {
    LogCapture cap;
    auto file = test::loadText(
        cap,
        "<kivinfo supplier_name='${n}' supplier_vendor='${n}' supplier_version='${n}' "
        "model_version='${n}'><group name='${n}' data_type='${n}'><memberclass name='${n}' "
        "association_name='${n}' mergeRootClass='${n}'><instance inst_id='${n}'>"
        "<property name='${n}' sourceformat='${n}'><value>${n}</value><value>${m}</value></property>"
        "<reference rolename='${n}' groupname='${n}' classname='${n}' inst_id='${n}'/>"
        "</instance></memberclass></group></kivinfo>");
    ASSERT_TRUE(file->isLoaded());
    PSymbols table(cap);
    table.addSymbol(u"n", u"N");
    file->setSymbols(table);
    // A default that holds a placeholder becomes an explicit value.
    CGroup& g = *file->getGroupChangeIterator();
    g.attributes().emplace_back(u"extra", u"", u"${n}");
    file->replaceSymbols();
    EXPECT_EQ(messagesAfter(cap, "CIM Model Version: ${n}"), Lines{"Replacing symbols in XML document."});
    EXPECT_EQ(u8(file->getBody()),
              "<kivinfo supplier_name=\"N\" supplier_version=\"N\" supplier_vendor=\"N\" model_version=\"N\">"
              "<group name=\"${n}\" data_type=\"N\" data_version=\"\" group_type=\"GENERIC\" extra=\"N\">"
              "<memberclass name=\"${n}\" association_name=\"N\" root_role=\"\" member_role=\"\" sync=\"TRUE\" "
              "merge_members=\"TRUE\" merge_properties=\"TRUE\" clean=\"NONE\" optional=\"FALSE\" mergeRootClass=\"N\">"
              "<instance inst_id=\"${n}\"><property name=\"${n}\" sourceformat=\"N\"><value>N</value>"
              "<value>${m}</value></property><reference rolename=\"${n}\" groupname=\"${n}\" "
              "classname=\"${n}\" inst_id=\"${n}\"/></instance></memberclass></group></kivinfo>");
    EXPECT_EQ(g.attributes().back().getDefaultValue(), u"${n}");
}

}  // namespace
}  // namespace kivreg
