#include <gtest/gtest.h>

#include <new>

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

}  // namespace
}  // namespace kivreg::rt
