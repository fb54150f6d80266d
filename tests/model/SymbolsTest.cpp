#include <gtest/gtest.h>

#include <optional>
#include <random>

#include "model/ModelTestUtil.h"
#include "model/PSymbols.h"
#include "support/CCConv.h"

namespace kivreg {
namespace {

using test::LogCapture;
using test::u16;
using test::u8;
using Lines = std::vector<std::string>;
using Defined = std::vector<std::pair<std::u16string, std::u16string>>;

// The symbols defined, in order, must be exactly `defined`.
void expectDefined(const PSymbols& s, const Defined& defined) {
    ASSERT_EQ(s.getSymbolCount(), defined.size());
    for (size_t i = 0; i < defined.size(); ++i) {
        EXPECT_EQ(s.symbols()[i].getName(), u8(defined[i].first));
        EXPECT_EQ(s.symbols()[i].getValue(), u8(defined[i].second));
    }
}

// The text with the table's placeholders replaced, as far as the bounds let it go.
std::u16string replaced(const PSymbols& s, const std::u16string& text) {
    std::string utf8 = u8(text);
    PSymbols::Budget budget;
    s.replaceSymbolsInPlace(utf8, budget);
    return u16(utf8);
}

TEST(PSymbols, LineRules) {
    struct Case {
        const char16_t* line;
        int rc;
        Defined defined;
        Lines messages;
    };
    const Case cases[] = {
        {u" \t host \t=\t v w \t\r\n", 1, {{u"host", u"v w"}}, {}},
        {u"a=b=c", 1, {{u"a", u"b=c"}}, {}},
        {u"=value", 1, {{u"", u"value"}}, {}},
        {u"empty=", 1, {{u"empty", u""}}, {}},
        {u"#x=1", 1, {}, {}},
        {u"", 1, {}, {}},
        {u" \t \r\n", 1, {}, {}},
        {u" #comment", -2, {}, {"Syntax error in symbol line: \" #comment\"."}},
        {u"novalue\n", -2, {}, {"Syntax error in symbol line: \"novalue\"."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(u8(c.line));
        LogCapture cap;
        PSymbols s(cap);
        EXPECT_EQ(s.addSymbol(c.line), c.rc);
        expectDefined(s, c.defined);
        EXPECT_EQ(cap.messages(), c.messages);
    }
}

TEST(PSymbols, Files) {
    test::TempDir dir;
    const std::string path = (dir / "s.properties").string();
    // 65535 units make one piece; the rest is a line of its own.
    const std::string longName(65530, 'n');
    struct Case {
        const char* what;
        std::optional<std::string> content;  // none: no file
        int rc;
        Defined defined = {};
        std::string message = "";  // the one logged, if any
    };
    const Case cases[] = {
        {"missing", std::nullopt, -10, {}, "Failed to open symbol file \"" + path + "\"."},
        {"empty file", "", 1},
        {"definitions, comments, CRLF",
         "# c\r\na = 1\r\n\r\nb=\xC3\xA4\n",
         1,
         {{u"a", u"1"}, {u"b", u"\u00E4"}}},
        {"syntax error stops reading",
         "a=1\noops\nb=2\n",
         -2,
         {{u"a", u"1"}},
         "Syntax error in symbol line: \"oops\"."},
        {"malformed UTF-8 is a read error",
         "a=1\nb=2\nc=\xFF\nd=4\n",
         -11,
         {{u"a", u"1"}, {u"b", u"2"}},
         "Read error in symbol file \"" + path + "\", line 2."},
        {"overlong lines are read in pieces",
         longName + "=abcdetail=1\nnext=2\n",
         1,
         {{u16(longName), u"abcd"}, {u"etail", u"1"}, {u"next", u"2"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove(path);
        if (c.content) test::writeFile(path, *c.content);
        LogCapture cap;
        PSymbols s(cap);
        EXPECT_EQ(PSymbols::checkSymbolFile(u16(path)), c.content.has_value());
        EXPECT_EQ(s.addSymbols(u16(path)), c.rc);
        expectDefined(s, c.defined);
        EXPECT_EQ(cap.messages(), c.message.empty() ? Lines{} : Lines{c.message});
    }
    // A directory opens but cannot be read.
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    LogCapture cap;
    PSymbols s(cap);
    EXPECT_EQ(s.addSymbols(u16(path)), -11);
    EXPECT_EQ(cap.messages(), Lines{"Read error in symbol file \"" + path + "\", line 0."});
}

TEST(PSymbols, Replacement) {
    LogCapture cap;
    PSymbols s(cap);
    for (const char16_t* line : {u"x=1", u"y=2", u"x=X", u"self=<${self}>"})
        ASSERT_EQ(s.addSymbol(line), 1);
    expectDefined(
        s, {{u"y", u"2"}, {u"x", u"X"}, {u"self", u"<${self}>"}});  // redefined: moved to the end
    const std::pair<std::u16string, std::u16string> cases[] = {
        {u"${x}${y}$x {x}", u"X2$x {x}"},
        {u"${X} ${undefined}", u"${X} ${undefined}"},
        {u"${self}",
         std::u16string(100, u'<') + u"${self}" + std::u16string(100, u'>')},  // 100 passes at most
    };
    for (const auto& [in, out] : cases) {
        SCOPED_TRACE(u8(in));
        EXPECT_EQ(replaced(s, in), out);
    }
}

// Substitution finds placeholders with an automaton and cuts repeating passes
// short; it must give what applying every symbol in turn, pass after pass,
// gives. Random tables over "${}ab" make names and values that overlap, nest,
// build placeholders across a replacement's edges and cycle.
TEST(PSymbols, ReplacementAgreesWithPassAfterPass) {
    auto passAfterPass = [](const PSymbols& s,
                            std::u16string text) -> std::optional<std::u16string> {
        for (int pass = 0; pass < PSymbols::MAX_PASSES; ++pass) {
            const std::u16string before = text;
            for (const PSymbols::PSymbol& sym : s.symbols())
                text = CCConv::stringSubstituteAll(text, u16(sym.getPlaceholder()),
                                                   u16(sym.getValue()));
            if (text.size() > 4000) return std::nullopt;  // far below the bounds
            if (text == before) break;
        }
        return text;
    };
    std::mt19937 random(20261123);
    const std::u16string names[] = {u"a", u"b", u"c", u"", u"a}", u"${"};
    auto name = [&] { return names[random() % std::size(names)]; };
    // Placeholders of the names above mixed with loose units.
    auto text = [&](int most) {
        std::u16string t;
        for (int n = random() % (most + 1); n > 0; --n) {
            if (random() % 2)
                t += u"${" + name() + u"}";
            else
                t += u"${}ab"[random() % 5];
        }
        return t;
    };
    LogCapture cap;
    // Texts that come round again every 3 or 4 passes, from the start or
    // after one pass: 100 passes end at different points of the period.
    const std::pair<Defined, std::u16string> cycles[] = {
        {{{u"b", u"${c}"}, {u"a", u"${b}"}, {u"e", u"${a}"}, {u"c", u"${e}"}}, u"${a}"},
        {{{u"c", u"${e}"}, {u"a", u"${c}"}, {u"d", u"${a}"}, {u"e", u"${d}"}}, u"${e}"},
        {{{u"a", u"${d}"}, {u"e", u"${a}"}, {u"c", u"${e}"}, {u"b", u"${c}"}, {u"d", u"${b}"}},
         u"${e}${b}"},
        {{{u"a", u"${b}"}, {u"c", u"${a}"}, {u"d", u"${c}"}, {u"e", u"${d}"}, {u"b", u"${e}"}},
         u"${e}${b}${e}"},
    };
    for (const auto& [table, in] : cycles) {
        PSymbols s(cap);
        for (const auto& [name, value] : table) s.addSymbol(name, value);
        EXPECT_EQ(replaced(s, in), passAfterPass(s, in)) << u8(in);
    }
    int compared = 0;
    for (int round = 0; round < 3000; ++round) {
        PSymbols s(cap);
        // Values that are one placeholder each make chains and cycles.
        for (int n = random() % 6; n > 0; --n)
            s.addSymbol(name(), random() % 2 ? u"${" + name() + u"}" : text(3));
        const std::u16string in = text(6);
        const auto expected = passAfterPass(s, in);
        if (!expected) continue;
        ++compared;
        ASSERT_EQ(replaced(s, in), *expected) << "round " << round;
    }
    EXPECT_GT(compared, 2000);
}

// The bounds count 16-bit units, whatever the bytes of the UTF-8 texts: a
// character of two or three bytes is one unit, one of four bytes two.
TEST(PSymbols, SubstitutionStopsAtTheBounds) {
    using Stop = PSymbols::Budget::Stop;
    constexpr size_t kMax = PSymbols::MAX_TEXT_UNITS;
    const std::u16string acute = u"\u00E9", cjk = u"\u6F22", astral = u"\U0001F600";
    auto times = [](const std::u16string& unit, size_t n) {
        std::u16string t;
        for (size_t i = 0; i < n; ++i) t += unit;
        return t;
    };
    LogCapture cap;
    PSymbols s(cap);
    s.addSymbol(u"full", std::u16string(kMax, u'f'));
    s.addSymbol(u"over", std::u16string(kMax + 1, u'o'));
    s.addSymbol(u"twice", u"${twice}${twice}");
    s.addSymbol(u"cut", u"");
    s.addSymbol(u"wide", times(acute, kMax - 7));         // twice the bytes, within the units
    s.addSymbol(u"han", times(cjk, kMax - 6));            // three times the bytes
    s.addSymbol(u"pairs", times(astral, kMax / 2 - 3));   // kMax - 6 units in pairs
    s.addSymbol(u"pairs1", times(astral, kMax / 2 + 1));  // one pair beyond
    // Each of c0..c29 holds the next twice: 2^30 copies of c30 unless stopped.
    for (int i = 0; i < 30; ++i) {
        const std::u16string next = u"${c" + u16(std::to_string(i + 1)) + u"}";
        s.addSymbol(u"c" + u16(std::to_string(i)), next + next);
    }
    struct Case {
        std::u16string text;
        size_t growthLeft;
        Stop stop;
        size_t units;  // of the text afterwards
    };
    const size_t fullGrowth = kMax - 7;  // "${full}" is 7 units
    const Case cases[] = {
        {u"${full}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::None, kMax},
        {u"${over}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::Text, 7},
        {u"${twice}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::Text, kMax},  // 8 * 2^17 units
        {u"${c0}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::Text, 786432},   // 2^17 * "${c17}"
        {u"${full}", fullGrowth, Stop::None, kMax},
        {u"${full}", fullGrowth - 1, Stop::Document, 7},
        // A text read beyond the bound may still shrink.
        {std::u16string(kMax + 1, u'x') + u"${cut}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::None,
         kMax + 1},
        {u"${wide}${wide}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::Text, 14},
        {u"${wide}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::None, kMax - 7},
        {acute + u"${han}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::None, kMax - 5},
        {acute + u"${han}", kMax - 12, Stop::None, kMax - 5},
        {acute + u"${han}", kMax - 13, Stop::Document, 7},
        {times(cjk, 4) + times(acute, 3) + u"${han}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::Text,
         13},
        {astral + u"${pairs}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::None, kMax - 4},
        {times(astral, 4) + u"${pairs}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::Text, 16},
        {u"${pairs1}", PSymbols::MAX_DOCUMENT_GROWTH, Stop::Text, 9},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(u8(c.text.substr(0, 10)) + " " + std::to_string(c.growthLeft));
        PSymbols::Budget budget;
        budget.growthLeft = c.growthLeft;
        std::string text = u8(c.text);
        s.replaceSymbolsInPlace(text, budget);
        EXPECT_EQ(budget.stopped, c.stop);
        EXPECT_EQ(u16(text).size(), c.units);
        // What a text gives up is not lent to the others.
        EXPECT_EQ(budget.growthLeft,
                  c.growthLeft - std::max(c.units, c.text.size()) + c.text.size());
    }
    EXPECT_TRUE(cap.messages().empty());
}

// The document names the text that a bound stopped in, and stops there.
TEST(CXmlFile, SubstitutionBoundNamesTheText) {
    const std::pair<const char*, const char*> cases[] = {
        {"<kivinfo supplier_name='S' supplier_vendor='${twice}'/>",
         "the supplier header, supplier_vendor"},
        {"<kivinfo supplier_name='S'><group name='G'><class name='C' "
         "clean='${twice}'/></group></kivinfo>",
         "group \"G\", class \"C\", attribute \"clean\""},
        {"<kivinfo supplier_name='S'><group name='G'><class name='C'><instance "
         "inst_id='i'><property name='P'>"
         "<value>${twice}</value></property></instance></class></group></kivinfo>",
         "group \"G\", class \"C\", instance \"i\", property \"P\""},
    };
    for (const auto& [doc, where] : cases) {
        SCOPED_TRACE(where);
        LogCapture cap;
        auto file = test::loadText(cap, doc);
        ASSERT_TRUE(file->isLoaded()) << cap.text();
        PSymbols table(cap);
        table.addSymbol(u"twice", u"${twice}${twice}");
        file->setSymbols(table);
        const size_t before = cap.messages().size();
        EXPECT_FALSE(file->replaceSymbols());
        EXPECT_EQ(
            test::loggedSince(cap, before),
            std::string("Replacing symbols in XML document.\n"
                        "Symbol substitution stopped: a text would exceed 1048576 units in ") +
                where + ".");
    }
}

}  // namespace
}  // namespace kivreg
