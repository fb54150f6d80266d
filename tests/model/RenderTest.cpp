#include <gtest/gtest.h>

#include "model/CClassicXml.h"
#include "model/CXmlFile.h"
#include "model/ModelTestUtil.h"

namespace kivreg {
namespace {

using test::LogCapture;
using test::modelData;
using test::u16;
using test::u8;
using Lines = std::vector<std::string>;

std::unique_ptr<CXmlFile> loadPrepared(LogCapture& cap, const std::string& xml,
                                       const std::string& symbolFile, bool old) {
    auto file = std::make_unique<CXmlFile>(cap, u16(xml));
    EXPECT_TRUE(file->isLoaded());
    EXPECT_TRUE(file->validateReferences());
    if (!symbolFile.empty()) {
        PSymbols table(cap);
        EXPECT_EQ(table.addSymbols(u16(symbolFile)), 1);
        file->setSymbols(table);
        file->replaceSymbols();
    }
    file->setOldTransferDtd(old);
    return file;
}

TEST(TransferBody, GoldenDocuments) {
    struct Case {
        const char* doc;
        const char* symbols;
        const char* body;
        const char* old;
    };
    const Case cases[] = {
        {"realistic.xml", "", "realistic.body.xml", "realistic.old.xml"},
        {"all_attributes.xml", "", "all_attributes.body.xml", "all_attributes.old.xml"},
        {"symbols.xml", "symbols.properties", "symbols.body.xml", "symbols.old.xml"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.doc);
        const std::string symbols = *c.symbols ? modelData(c.symbols) : "";
        LogCapture cap;
        auto current = loadPrepared(cap, modelData(c.doc), symbols, false);
        EXPECT_EQ(u8(current->getBody()), test::readFile(modelData(c.body)));
        auto old = loadPrepared(cap, modelData(c.doc), symbols, true);
        EXPECT_EQ(u8(old->getBody()), test::readFile(modelData(c.old)));
    }
}

TEST(TransferBody, ExampleSupplierDocumentResolvesEverything) {
    LogCapture cap;
    auto file = loadPrepared(cap, std::string(KIVREG_SOURCE_DIR) + "/examples/supplier.xml",
                             std::string(KIVREG_SOURCE_DIR) + "/examples/symbols.properties", false);
    const std::string body = u8(file->getBody());
    EXPECT_EQ(body.find("${"), std::string::npos) << body;
    EXPECT_NE(body.find("<value>/opt/nordlicht/PRD/PRD</value>"), std::string::npos);
    EXPECT_NE(body.find("supplier_name=\"HostAgent erpapp01.example.com\""), std::string::npos);
}

TEST(TransferBody, MinimalModels) {
    struct Case {
        const char* doc;
        const char* body;
        const char* old;
    };
    const Case cases[] = {
        {"<kivinfo supplier_name='S'/>", "<kivinfo supplier_name=\"S\"></kivinfo>",
         "<qordata type=\"S\" version=\"\"></qordata>"},
        {"<kivinfo supplier_name='S' supplier_vendor='V'><group name='G'><class name='C'/></group></kivinfo>",
         "<kivinfo supplier_name=\"S\" supplier_vendor=\"V\"><group name=\"G\" data_type=\"\" "
         "data_version=\"\" group_type=\"GENERIC\"><class name=\"C\" sync=\"TRUE\" "
         "merge_properties=\"TRUE\" clean=\"NONE\"></class></group></kivinfo>",
         "<qordata type=\"S\" version=\"\"></qordata>"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.doc);
        LogCapture cap;
        auto file = test::loadText(cap, c.doc);
        EXPECT_EQ(u8(file->getBody()), c.body);
        CClassicXml classic(file->getSupplierName(), file->getSupplierVersion(), file.get());
        EXPECT_EQ(u8(classic.getXml()), c.old);
    }
}

TEST(TransferBody, BuiltOnceAndEachWriterOnlyForItsFormat) {
    LogCapture cap;
    auto file = test::loadText(cap, "<kivinfo supplier_name='${s}'/>");
    const std::string first = u8(file->getBody());
    PSymbols table(cap);
    table.addSymbol(u"s", u"changed");
    file->setSymbols(table);
    file->replaceSymbols();
    EXPECT_EQ(u8(file->getBody()), first);  // the cached body stands

    file->setOldTransferDtd(true);
    file->createBody();  // the current format's writer does nothing for the old format
    EXPECT_EQ(u8(file->getBody()), "<qordata type=\"changed\" version=\"\"></qordata>");
    file->setOldTransferDtd(false);
    file->createBodyOld();
    EXPECT_EQ(u8(file->getBody()), "<kivinfo supplier_name=\"changed\"></kivinfo>");
}

TEST(TransferBody, UnknownClassKindIsMarkedAndOldFormatIgnoresKinds) {
    LogCapture cap;
    auto file = test::loadText(cap,
                               "<kivinfo supplier_name='S' supplier_version='1'><group name='G'>"
                               "<class name='C'><instance inst_id='i'><property name='P'>"
                               "<value>a&lt;b</value></property></instance></class></group></kivinfo>");
    CClass& cls = file->getGroupChangeIterator()->classes()[0];
    CClass odd(u"C", 5);
    odd.addInst(CInst(cls.instances()[0]));
    cls = std::move(odd);
    EXPECT_EQ(u8(file->getBody()),
              "<kivinfo supplier_name=\"S\" supplier_version=\"1\"><group name=\"G\" data_type=\"\" "
              "data_version=\"\" group_type=\"GENERIC\">INVALID CLASS TYPE name=\"C\"><instance "
              "inst_id=\"i\"><property name=\"P\"><value>a&lt;b</value></property></instance>"
              "</group></kivinfo>");
    CClassicXml classic(u"T", u"V", file.get());
    EXPECT_EQ(u8(classic.getXml()),
              "<qordata type=\"T\" version=\"V\"><instance classname=\"C\" inst_id=\"i\"><property "
              "name=\"P\"><value>a<b</value></property></instance></qordata>");
    classic.reset(u"T2", u"", nullptr);
    EXPECT_EQ(u8(classic.getXml()), "<qordata type=\"T2\" version=\"\"></qordata>");
}

TEST(DataTrace, DumpLines) {
    LogCapture cap;
    auto file = test::loadText(
        cap, "<kivinfo supplier_name='S' model_version='M'><group name='G' group_type='SPECIFIC'>"
             "<class name='C'><instance inst_id='x'><property name='b'><value>a&amp;b</value></property>"
             "<property name='A' sourceformat='f'/><reference rolename='r' groupname='G' classname='C'/>"
             "</instance><instance inst_id='y'/></class><rootclass name='R'/></group></kivinfo>");
    file->getGroupChangeIterator()->classes().emplace_back(u"Odd", 9);
    const size_t before = cap.messages().size();
    file->write2File();
    const Lines all = cap.messages();
    EXPECT_EQ(Lines(all.begin() + static_cast<long>(before), all.end()),
              (Lines{"Supplier Name: S",
                     "Supplier Version: ",
                     "Supplier Vendor: ",
                     "Model Version: M",
                     "Group Name: G[Class count: 3]",
                     "  Attribute: data_type: ",
                     "  Attribute: data_version: ",
                     "  Attribute: group_type: SPECIFIC",
                     "Class name: C[Instances count: 2]",
                     "  Attribute: sync: TRUE",
                     "  Attribute: merge_properties: TRUE",
                     "  Attribute: clean: NONE",
                     "  Instance Number: 0",
                     "    Property: A",
                     "      Source format: f",
                     "    Property: b",
                     "      Parsed Value: a&b",
                     "      Output Value: a&amp;b",
                     "    Reference (role): r",
                     "      Group/Class/instId  : G/C/",
                     "  Instance Number: 1",
                     "Root class name: R[Instances count: 0]",
                     "  Attribute: sync: FALSE",
                     "  Attribute: merge_roots: TRUE",
                     "  Attribute: merge_properties: TRUE",
                     "  Attribute: clean: NONE",
                     " name: Odd[Instances count: 0]"}));
}

TEST(DataTrace, NoGroupsGivesTheSupplierLinesOnly) {
    LogCapture cap;
    auto file = test::loadText(cap, "<kivinfo supplier_name='S'/>");
    const size_t before = cap.messages().size();
    file->write2File();
    EXPECT_EQ(test::loggedSince(cap, before),
              "Supplier Name: S\nSupplier Version: \nSupplier Vendor: \nModel Version: ");
}

}  // namespace
}  // namespace kivreg
