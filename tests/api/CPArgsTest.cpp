#include <gtest/gtest.h>

#include "api/CPArgs.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

// Parses a command line given as separate words (the program name first).
CPArgs parse(std::vector<std::u16string> words) {
    std::vector<char16_t*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    return CPArgs(argv.data());
}

struct Entry {
    std::u16string name;
    std::u16string value;
    bool hasValue;
    bool operator==(const Entry&) const = default;
};

std::vector<Entry> entries(const CPArgs& args) {
    std::vector<Entry> out;
    for (const auto& a : args.entries()) out.push_back({a.getName(), a.getValue(), a.hasValue()});
    return out;
}

void PrintTo(const Entry& e, std::ostream* os) {
    *os << test::u8(e.name) << "=" << test::u8(e.value) << (e.hasValue ? "" : " (switch)");
}

TEST(CPArgs, ParsesCommandLines) {
    struct Row {
        const char* what;
        std::vector<std::u16string> argv;
        std::vector<Entry> expected;
    };
    const Row rows[] = {
        {"values and a switch",
         {u"kivreg", u"-host", u"h", u"-port", u"8080", u"-usehttps"},
         {{u"-host", u"h", true}, {u"-port", u"8080", true}, {u"-usehttps", u"", false}}},
        {"a value option takes a dashed value",
         {u"kivreg", u"-connecttimeout", u"-5"},
         {{u"-connecttimeout", u"-5", true}}},
        {"-pass swallows the next option",
         {u"kivreg", u"-pass", u"-host", u"h"},
         {{u"-pass", u"-host", true}, {u"", u"h", true}}},
        {"a switch takes a plain word",
         {u"kivreg", u"-usehttps", u"x"},
         {{u"-usehttps", u"x", true}}},
        {"a lone word becomes a nameless entry",
         {u"kivreg", u"data.xml", u"-stdin"},
         {{u"", u"data.xml", true}, {u"-stdin", u"", false}}},
        {"a lone word with an inner dash is dropped",
         {u"kivreg", u"my-data.xml", u"-stdin"},
         {{u"-stdin", u"", false}}},
        {"an inner dash is fine as a value",
         {u"kivreg", u"-file", u"my-data.xml"},
         {{u"-file", u"my-data.xml", true}}},
        {"an empty word is a value", {u"kivreg", u"-pass", u""}, {{u"-pass", u"", true}}},
        {"a value option at the end stays without value",
         {u"kivreg", u"-stdin", u"-file"},
         {{u"-stdin", u"", false}, {u"-file", u"", false}}},
        {"repeated options are all kept",
         {u"kivreg", u"-host", u"a", u"-host", u"b"},
         {{u"-host", u"a", true}, {u"-host", u"b", true}}},
        {"unknown options are kept as switches",
         {u"kivreg", u"-bogus", u"-help"},
         {{u"-bogus", u"", false}, {u"-help", u"", false}}},
        {"program name only", {u"kivreg"}, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(entries(parse(row.argv)), row.expected);
    }
}

TEST(CPArgs, FirstOccurrenceWinsAndLookupsRespectCase) {
    const CPArgs args =
        parse({u"kivreg", u"-host", u"first", u"-HOST", u"upper", u"-host", u"third"});
    EXPECT_EQ(args.getArg(u"-host"), u"first");
    EXPECT_EQ(args.getArg(u"-Host"), u"");
    EXPECT_EQ(args.getArgIgnCase(u"-Host"), u"first");
    EXPECT_TRUE(args.isSwitchSet(u"-HOST"));
    EXPECT_FALSE(args.isSwitchSet(u"-hOST"));
    EXPECT_TRUE(args.isSwitchSetIgnCase(u"-hOST"));
    EXPECT_FALSE(args.hasArg(u"-port"));
    EXPECT_EQ(CPArgs::convertToLower(u'\u00C4'), u'\u00E4');
    EXPECT_EQ(CPArgs::convertToLower(u'\u00D7'), u'\u00D7');
}

// Adding replaces and moves to the end; removal passes over the entry after a removed one.
TEST(CPArgs, AddAndRemove) {
    CPArgs args = parse({u"kivreg", u"-x", u"-x", u"-y", u"-x"});
    args.addArg(u"-host", u"a");
    args.addSwitch(u"-usehttps");
    args.addArg(u"-host", u"b");
    args.removeArg(u"-x");
    EXPECT_EQ(entries(args), (std::vector<Entry>{{u"-x", u"", false},
                                                 {u"-y", u"", false},
                                                 {u"-usehttps", u"", false},
                                                 {u"-host", u"b", true}}));
    args.removeArg(u"-x");
    args.removeArg(u"-usehttps");
    EXPECT_EQ(entries(args), (std::vector<Entry>{{u"-y", u"", false}, {u"-host", u"b", true}}));
}

TEST(CPArgs, NumericTextAndValue) {
    // Not numbers (a full-width digit is not a digit): the largest value stands in.
    for (const std::u16string text : {u"", u"+", u"-", u" 7", u"7 ", u"7a", u"1+1", u"\uFF17"}) {
        EXPECT_FALSE(CPArgs::isNumeric(text)) << test::u8(text);
        EXPECT_EQ(CPArgs::getNumber(text), 2147483647) << test::u8(text);
    }
    const std::pair<std::u16string, int32_t> numbers[] = {
        {u"7", 7},
        {u"+7", 7},
        {u"-0", 0},
        {u"65536", 65536},
        {u"-1", -1},
        {u"2147483647", 2147483647},
        {u"99999999999", 2147483647},
        {u"-2147483648", -2147483647 - 1},
        {u"-99999999999", -2147483647 - 1},
    };
    for (const auto& [text, value] : numbers) {
        EXPECT_TRUE(CPArgs::isNumeric(text)) << test::u8(text);
        EXPECT_EQ(CPArgs::getNumber(text), value) << test::u8(text);
    }
}

}  // namespace
}  // namespace kivreg
