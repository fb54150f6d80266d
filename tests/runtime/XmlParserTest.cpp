#include <fcntl.h>
#include <gtest/gtest.h>

#include <fstream>
#include <new>

#include "testutil/TestUtil.h"

#include "runtime/XmlAdapter.h"

namespace kivreg::rt {
namespace {

// What the handler throws (the builder can only run out of memory) stops the
// parse and comes out of it: a document read in part must not pass for whole.
TEST(XmlParser, WhatTheHandlerThrowsStopsTheParseAndComesOut) {
    struct Throwing final : XmlHandler {
        int elements = 0;
        void startElement(const XmlStartTag&) override {
            if (++elements == 2) throw std::bad_alloc();
        }
        void endElement() override {}
        void text(std::string_view) override {}
    } handler;
    XmlInputStream in = XmlInputStream::onString("<a><b/><c/><d/></a>");
    XmlParser parser;
    EXPECT_THROW(parser.parse(in, handler), std::bad_alloc);
    EXPECT_EQ(handler.elements, 2);
}

// A host that has closed its standard input gets the document as descriptor
// 0; the stream must give that back too.
TEST(XmlParser, ADocumentOpenedAsDescriptorZeroIsClosed) {
    test::TempDir dir;
    const std::string path = (dir / "d.xml").string();
    std::ofstream(path) << "<a/>";
    test::StdinClosed noStdin;
    {
        XmlInputStream in = XmlInputStream::onFile(path);
        EXPECT_NE(::fcntl(0, F_GETFD), -1);
    }
    EXPECT_EQ(::fcntl(0, F_GETFD), -1);
}

}  // namespace
}  // namespace kivreg::rt
