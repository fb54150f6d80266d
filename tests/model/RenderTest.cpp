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
                PSymbols table(cap);
                ASSERT_EQ(table.addSymbols(u16(modelData(name + ".properties"))), 1);
                file.setSymbols(table);
                EXPECT_TRUE(file.replaceSymbols()) << cap.text();
            }
            file.setOldTransferDtd(old);
            EXPECT_EQ(u8(file.getBody()),
                      test::readFile(modelData(name + (old ? ".old.xml" : ".body.xml"))));
        }
    }
}

// Property names and roles order by 16-bit units, which puts a character
// above U+FFFF before one from U+E000, and the last of a name or role wins;
// the UTF-8 body is the 16-bit one converted, in both formats.
TEST(TransferBody, OrderBySixteenBitUnitsAndUtf8) {
    const std::string privateUse = "\xEE\x80\x80", astral = "\xF0\x9F\x98\x80";
    LogCapture cap;
    std::string doc =
        "<kivinfo supplier_name='S\xC3\xBC'><group name='G'><class name='C'><instance>"
        "<property name='z'><value>first</value></property><reference rolename='z' "
        "classname='first'/>";
    for (const std::string& n : {privateUse, astral, std::string("z")})
        doc += "<property name='" + n + "'><value>" + n +
               "</value></property><reference rolename='" + n + "'/>";
    auto file = test::loadText(cap, doc + "</instance></class></group></kivinfo>");
    const std::string body = u8(file->getBody());
    const size_t z = body.find("name=\"z\""), a = body.find("name=\"" + astral),
                 p = body.find("name=\"" + privateUse);
    EXPECT_TRUE(z < a && a < p) << body;
    const size_t rz = body.find("rolename=\"z\""), ra = body.find("rolename=\"" + astral),
                 rp = body.find("rolename=\"" + privateUse);
    EXPECT_TRUE(rz < ra && ra < rp) << body;
    EXPECT_EQ(body.find("first"), std::string::npos) << body;
    for (const bool old : {false, true}) {
        file->setOldTransferDtd(old);
        old ? file->createBodyOld() : file->createBody();
        std::string utf8 = "<?xml?>";
        EXPECT_TRUE(file->appendBodyUtf8(utf8));
        EXPECT_EQ(utf8, "<?xml?>" + u8(file->getBody()));
    }
}

// The trace lists everything; a class of unknown kind is dumped without its
// kind, marked in the body, and rendered like any other in the old format.
TEST(DataTrace, DumpLinesAndUnknownClassKind) {
    LogCapture cap;
    auto file = test::loadText(
        cap,
        "<kivinfo supplier_name='S' model_version='M'><group name='G' group_type='SPECIFIC'>"
        "<class name='C'><instance inst_id='x'><property name='b'><value>a&amp;b</value></property>"
        "<property name='A' sourceformat='f'/><reference rolename='r' groupname='G' classname='C'/>"
        "</instance><instance inst_id='y'/></class><rootclass name='R'/></group></kivinfo>");
    file->getGroupChangeIterator()->classes().emplace_back(u"Odd", 9).addInst(CInst(u"o"));
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
        " name: Odd[Instances count: 1]\n  Instance Number: 0");
    EXPECT_TRUE(u8(file->getBody())
                    .ends_with("</rootclass>INVALID CLASS TYPE name=\"Odd\"><instance "
                               "inst_id=\"o\"></instance></group>"
                               "</kivinfo>"));
    EXPECT_TRUE(u8(CClassicXml(u"T", u"V", file.get()).getXml())
                    .ends_with("<instance classname=\"Odd\" inst_id=\"o\"></instance></qordata>"));
}

}  // namespace
}  // namespace kivreg
