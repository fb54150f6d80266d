#include <gtest/gtest.h>

#include "model/CClassicXml.h"
#include "model/ModelTestUtil.h"

namespace kivreg {
namespace {

using test::LogCapture;
using test::modelData;
using test::u16;
using test::u8;

TEST(TransferBody, GoldenDocuments) {
    struct Case {
        const char* doc;
        const char* symbols;
        const char* body;  // in the current format, then the old one
        const char* old;
    };
    const Case cases[] = {
        {"realistic.xml", "", "realistic.body.xml", "realistic.old.xml"},
        {"all_attributes.xml", "", "all_attributes.body.xml", "all_attributes.old.xml"},
        {"symbols.xml", "symbols.properties", "symbols.body.xml", "symbols.old.xml"},
    };
    for (const Case& c : cases) {
        for (const bool old : {false, true}) {
            SCOPED_TRACE(std::string(c.doc) + (old ? " (old format)" : ""));
            LogCapture cap;
            CXmlFile file(cap, u16(modelData(c.doc)));
            ASSERT_TRUE(file.isLoaded()) << cap.text();
            EXPECT_TRUE(file.validateReferences()) << cap.text();
            if (*c.symbols) {
                PSymbols table(cap);
                ASSERT_EQ(table.addSymbols(u16(modelData(c.symbols))), 1);
                file.setSymbols(table);
                file.replaceSymbols();
            }
            file.setOldTransferDtd(old);
            EXPECT_EQ(u8(file.getBody()), test::readFile(modelData(old ? c.old : c.body)));
        }
    }
}

TEST(TransferBody, UnknownClassKindIsMarkedAndOldFormatIgnoresKinds) {
    LogCapture cap;
    auto file =
        test::loadText(cap,
                       "<kivinfo supplier_name='S' supplier_version='1'><group name='G'>"
                       "<class name='C'><instance inst_id='i'><property name='P'>"
                       "<value>a&lt;b</value></property></instance></class></group></kivinfo>");
    CClass& cls = file->getGroupChangeIterator()->classes()[0];
    CClass odd(u"C", 5);
    odd.addInst(CInst(cls.instances()[0]));
    cls = std::move(odd);
    EXPECT_EQ(
        u8(file->getBody()),
        "<kivinfo supplier_name=\"S\" supplier_version=\"1\"><group name=\"G\" data_type=\"\" "
        "data_version=\"\" group_type=\"GENERIC\">INVALID CLASS TYPE name=\"C\"><instance "
        "inst_id=\"i\"><property name=\"P\"><value>a&lt;b</value></property></instance>"
        "</group></kivinfo>");
    CClassicXml classic(u"T", u"V", file.get());
    EXPECT_EQ(u8(classic.getXml()),
              "<qordata type=\"T\" version=\"V\"><instance classname=\"C\" inst_id=\"i\"><property "
              "name=\"P\"><value>a<b</value></property></instance></qordata>");
}

TEST(DataTrace, DumpLines) {
    LogCapture cap;
    auto file = test::loadText(
        cap,
        "<kivinfo supplier_name='S' model_version='M'><group name='G' group_type='SPECIFIC'>"
        "<class name='C'><instance inst_id='x'><property name='b'><value>a&amp;b</value></property>"
        "<property name='A' sourceformat='f'/><reference rolename='r' groupname='G' classname='C'/>"
        "</instance><instance inst_id='y'/></class><rootclass name='R'/></group></kivinfo>");
    file->getGroupChangeIterator()->classes().emplace_back(u"Odd", 9);
    const size_t before = cap.messages().size();
    file->write2File();
    EXPECT_EQ(
        test::loggedSince(cap, before),
        "Supplier Name: S\nSupplier Version: \nSupplier Vendor: \nModel Version: M\n"
        "Group Name: G[Class count: 3]\n"
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
        "  Attribute: merge_properties: TRUE\n  Attribute: clean: NONE\n"
        " name: Odd[Instances count: 0]");
}

}  // namespace
}  // namespace kivreg
