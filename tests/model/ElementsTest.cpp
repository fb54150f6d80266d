#include <gtest/gtest.h>

#include "model/CClass.h"
#include "model/CGroup.h"
#include "model/CInst.h"
#include "model/CProp.h"
#include "model/CRef.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::u8;

CAttr attr(const char16_t* name, const char16_t* value, const char16_t* def,
           std::initializer_list<const char16_t*> allowed) {
    CAttr a(name, value, def);
    for (const char16_t* v : allowed) a.addAllowedValue(v);
    return a;
}

TEST(CAttr, ValueFallsBackToDefaultAndValidityIgnoresGivenValues) {
    struct Case {
        const char* what;
        CAttr attr;
        std::u16string value;
        bool valid;
    };
    const Case cases[] = {
        {"given value outside the allowed list", attr(u"sync", u"MAYBE", u"TRUE", {u"TRUE", u"FALSE"}), u"MAYBE", true},
        {"default in the allowed list", attr(u"sync", u"", u"TRUE", {u"TRUE", u"FALSE"}), u"TRUE", true},
        {"default outside the allowed list", attr(u"sync", u"", u"YES", {u"TRUE", u"FALSE"}), u"YES", false},
        {"default compared with case", attr(u"sync", u"", u"true", {u"TRUE"}), u"true", false},
        {"no default, empty admitted", attr(u"x", u"", u"", {u"A", u""}), u"", true},
        {"no default, empty not admitted", attr(u"x", u"", u"", {u"A"}), u"", false},
        {"any value", attr(u"x", u"", u"", {}), u"", true},
        {"no name", attr(u"", u"v", u"", {}), u"v", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.attr.getValue(), c.value);
        EXPECT_EQ(c.attr.isValid(), c.valid);
    }
}

TEST(CBaseElem, AttributeNamesIgnoreCaseClassNamesDoNot) {
    CGroup g(u"G");
    g.addAttribute(u"sync", u"", u"TRUE");
    g.addAttribute(u"Gr\u00FC\u00DFe", u"v");
    EXPECT_EQ(g.getAttributeValue(u"SYNC"), u"TRUE");
    EXPECT_EQ(g.getAttributeValue(u"GR\u00DC\u00DFE"), u"v");  // Latin capitals fold too
    EXPECT_EQ(g.getAttributeValue(u"syncx"), u"");
    EXPECT_EQ(g.getAttribute(u"missing"), g.getAttributeEnd());

    CClass upper(u"C", CClass::TYPE_CLASS);
    g.addClass(&upper);
    EXPECT_EQ(g.getClass(u"c"), g.getClassEnd());
    ASSERT_NE(g.getClass(u"C"), g.getClassEnd());
}

TEST(CBaseElem, ValidateAttributesReportsEveryFailureInOrder) {
    test::LogCapture cap;
    CClass c(u"C", 0);
    c.addAttribute(attr(u"first", u"", u"BAD", {u"OK"}));
    c.addAttribute(attr(u"fine", u"", u"OK", {u"OK"}));
    c.addAttribute(attr(u"second", u"", u"", {u"OK"}));
    EXPECT_FALSE(c.validateAttributes(cap));
    EXPECT_EQ(cap.messages(), (std::vector<std::string>{
                                  "Attribute 'first' has invalid value 'BAD' assigned.",
                                  "Attribute 'second' has invalid value '' assigned.",
                              }));
    EXPECT_TRUE(CClass(u"D", 0).validateAttributes(cap));
}

TEST(CInst, SameNameOrRoleLastOneWinsInstancesAreAllKept) {
    CInst inst(u"i");
    CProp p1(u"P");
    p1.addValue(u"first");
    CProp p2(u"P");
    p2.addValue(u"second");
    inst.addProperty(p1);
    inst.addProperty(std::move(p2));
    inst.addProperty(static_cast<const CProp*>(nullptr));
    inst.addReference(CRef(u"R", u"g", u"c", u"1"));
    CRef r2(u"R", u"g", u"c", u"2");
    inst.addReference(&r2);
    inst.addReference(static_cast<const CRef*>(nullptr));
    EXPECT_EQ(inst.getValueCount(), 1u);
    EXPECT_EQ(inst.getProperty(u"P")->second.values(), std::vector<std::u16string>{u"second"});
    EXPECT_EQ(inst.getReference(u"R")->second.getInstId(), u"2");
    EXPECT_EQ(inst.getReference(u"r"), inst.getReferenceEnd());
    EXPECT_TRUE(inst.hasReference());

    CClass c(u"C", 0);
    c.addInst(&inst);
    c.addInst(CInst(u"i"));
    EXPECT_EQ(c.getInstanceCount(), 2u);
    // The class holds copies: changing the original leaves the class alone.
    inst.addProperty(CProp(u"Later"));
    EXPECT_EQ(c.instances()[0].getValueCount(), 1u);
}

TEST(CClass, KindTextAndReferenceCompleteness) {
    const std::pair<int, const char16_t*> kinds[] = {
        {0, u"Class"}, {1, u"Root class"}, {2, u"Member class"}, {3, u""}, {-1, u""}};
    for (auto [code, text] : kinds) {
        SCOPED_TRACE(code);
        EXPECT_EQ(CClass(u"C", code).getType(), text);
    }
    EXPECT_TRUE(CRef(u"r", u"", u"c", u"i").isInitial());
    EXPECT_FALSE(CRef(u"", u"g", u"c", u"i").isInitial());
    EXPECT_FALSE(CRef(u"r", u"g", u"", u"i").isInitial());
    EXPECT_FALSE(CRef(u"r", u"g", u"c", u"").isInitial());
    EXPECT_TRUE(CProp().isEmpty());
    CProp named(u"n");
    EXPECT_FALSE(named.isEmpty());
}

TEST(CProp, EscapeReplacesExactlyTheFiveMarkupCharacters) {
    const std::pair<std::u16string, std::u16string> cases[] = {
        {u"", u""},
        {u"plain", u"plain"},
        {u"<a href='x'>", u"&lt;a href=&apos;x&apos;&gt;"},
        {u"a&amp;b", u"a&amp;amp;b"},
        {u"\"q\"", u"&quot;q&quot;"},
        {u"tab\there\nline \u00E9\u6F22", u"tab\there\nline \u00E9\u6F22"},
        {u"&&", u"&amp;&amp;"},
    };
    for (const auto& [in, out] : cases) {
        SCOPED_TRACE(u8(in));
        EXPECT_EQ(CProp::escapeXML(in), out);
    }
}

}  // namespace
}  // namespace kivreg
