// Loading documents from text, files and standard input; untrusted documents
// (entity bombs, deep nesting, external entities and DTDs, the network,
// malformed UTF-8) are neither followed nor crash, and nothing reaches stderr.

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "model/ModelTestUtil.h"
#include "runtime/XmlAdapter.h"

namespace kivreg::test {
namespace {

using Lines = std::vector<std::string>;

// Surrogate: a lone surrogate opens the first attribute value; StdinByName: an empty file name.
enum class From { Text, Surrogate, File, Stdin, StdinByName, Missing, Directory };

// The four lines a fatal parse error is logged in.
Lines parseError(const std::string& reason, const std::string& where, const char* entity = "") {
    return {"Parse error on XML file.", "Fatal Error: " + reason, std::string(" entity=") + entity,
            " in line " + where};
}

Lines operator+(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(CXmlFileLoad, MessagesAndResult) {
    const Lines header = {"Parsing XML document.", "Supplier Name: S",
                          "Supplier Version: ", "Supplier Vendor: ", "CIM Model Version: "};
    const Lines refused = {"Failed to parse input data.", "Failed to load and parse XML input."};
    const Lines noText = {refused[1]}, noStdin = {"Failed to load and parse XML input from stdin."};
    const Lines noFile = {"Failed to load and parse XML input file: @"};  // "@": the file name
    const Lines noStream = {"Failed to create XML input stream.", "Check file existence: @"};
    const auto root = [&](const std::string& why) { return Lines{header[0], why} + refused; };
    Lines munich = header;
    munich[1] = "Supplier Name: M\xC3\xBCnchen";
    struct Case {
        const char* what;
        From from;
        std::string doc;
        Lines messages;
        size_t groups = 0;
        bool loaded = false;
        const char* inBody = "";
    };
    Lines entities = header;
    entities[1] = "Supplier Name: S-hello";
    const Case cases[] = {
        {"root name compared with case", From::Text, "<KIVINFO supplier_name='S'/>",
         root("Invalid XML root element found: KIVINFO")},
        {"prefixed root", From::Text, "<x:kivinfo xmlns:x='urn:x' supplier_name='S'/>",
         root("Invalid XML root element found: x:kivinfo")},
        {"no supplier name", From::Text, "<kivinfo supplier_version='1'/>",
         root("Supplier name attribute value missing in root element.")},
        {"group without name after a good one", From::Text,
         "<kivinfo supplier_name='S'><group name='A'/><group name=''/><group name='C'/></kivinfo>",
         header + Lines{"Group name attribut not specified.", ""} + refused, 1},
        {"class without name drops its group", From::Text,
         "<kivinfo supplier_name='S'><group name='A'/><group name='B'><class "
         "name='ok'/><memberclass/></group></kivinfo>",
         header + Lines{"Class attribute name not set.", ""} + refused, 1},
        {"a nameless group is not reported when the input is malformed further on", From::Text,
         "<kivinfo supplier_name='S'><group name=''/><group name='B'></kivinfo>",
         parseError("Opening and ending tag mismatch: group line 1 and kivinfo", "1, 70") +
             parseError("Premature end of data in tag kivinfo line 1", "1, 70") + noText},
        {"internal entities, also nested ones, are expanded in attributes and values at every "
         "use",
         From::Text,
         "<!DOCTYPE kivinfo [<!ENTITY e 'hello'><!ENTITY n '&e;!'>]><kivinfo "
         "supplier_name='S-&e;'><group name='G'><class name='C'><instance><property "
         "name='P'><value>[&e;]&n;&n;</value></property></instance></class></group></kivinfo>",
         entities, 1, true, "<value>[hello]hello!hello!</value>"},
        {"malformed", From::Text, "<kivinfo supplier_name='S'>\n  <group name='A'>\n</kivinfo>",
         parseError("Opening and ending tag mismatch: group line 2 and kivinfo", "3, 11") +
             parseError("Premature end of data in tag kivinfo line 1", "3, 11") + noText},
        {"empty text", From::Text, "", parseError("Document is empty", "1, 1") + noText},
        {"text that is not Unicode", From::Surrogate, "<kivinfo supplier_name=''/>",
         Lines{"4: CCConv::toUTF8Str: Function 'UcnToUtf8nCP' failed. RC=7"} + noText},
        {"parse error in a file names the file", From::File,
         "<kivinfo supplier_name='S'>\n<group name='a' name='b'/></kivinfo>",
         parseError("Attribute name redefined", "2, 25", "@") + noFile},
        {"missing file", From::Missing, "", noStream + noFile},
        {"directory", From::Directory, "", noStream + noFile},
        {"stdin: the doubled last character is extra content", From::StdinByName,
         "<kivinfo supplier_name='S'/>",
         parseError("Extra content at the end of the document", "1, 29") + noStdin},
        {"stdin: empty", From::Stdin, "", parseError("Document is empty", "1, 1") + noStdin},
        {"stdin ending in a line end", From::Stdin,
         "<kivinfo supplier_name='S'><group name='G'/></kivinfo>\n", header, 1, true},
        {"a text is Unicode whatever it declares", From::Text,
         "<?xml version='1.0' encoding='ISO-8859-1'?><kivinfo supplier_name='M\xC3\xBCnchen'/>",
         munich, 0, true},
        {"a file is read in the encoding it declares", From::File,
         "<?xml version='1.0' encoding='ISO-8859-1'?><kivinfo supplier_name='M\xFCnchen'/>", munich,
         0, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture cap;
        TempDir dir;
        std::string name = (dir / (c.from == From::Missing ? "missing.xml" : "doc.xml")).string();
        if (c.from == From::Directory) name = dir.path().string();
        std::u16string text = u16(c.doc);
        if (c.from == From::Surrogate) text.insert(text.find(u'\'') + 1, 1, u'\xD800');
        if (c.from == From::File) test::writeFile(name, c.doc);
        std::unique_ptr<CXmlFile> file;
        if (c.from == From::Text || c.from == From::Surrogate) {
            file = std::make_unique<CXmlFile>(cap, text, 0);
        } else if (c.from == From::Stdin || c.from == From::StdinByName) {
            test::StdinFrom redirect(c.doc);
            file = c.from == From::Stdin ? std::make_unique<CXmlFile>(cap)
                                         : std::make_unique<CXmlFile>(cap, u"");
        } else {
            file = std::make_unique<CXmlFile>(cap, u16(name));
        }
        Lines expected = c.messages;
        for (std::string& m : expected)
            if (const size_t at = m.find('@'); at != std::string::npos) m.replace(at, 1, name);
        EXPECT_EQ(file->isLoaded(), c.loaded);
        EXPECT_EQ(cap.messages(), expected);
        EXPECT_EQ(file->groups().size(), c.groups);
        EXPECT_NE(test::body(*file).find(c.inBody), std::string::npos);
    }
}

TEST(CXmlFileLoad, StdinRepeatsItsLastCharacter) {
    // A whole character is repeated, never just its last byte.
    const std::pair<std::string, size_t> stdinCases[] = {
        {"x\xC3\xBC", 1}, {"\xF0\x9F\x98\x80", 0}, {"ab", 1}};
    for (const auto& [in, start] : stdinCases) EXPECT_EQ(rt::lastCharStart(in), start) << in;
}

// Documents far larger than the parser's buffers, from a file and through
// standard input; a class rejected halfway keeps what came before it, and is
// reported only when the rest of the input is well-formed.
TEST(CXmlFileLoad, LargeDocuments) {
    constexpr int kInstances = 60000;  // about 20 MB
    const auto document = [](int rejectAt, const std::string& tail) {
        std::string doc = "<kivinfo supplier_name='S'><group name='A'><class name='C'>";
        for (int i = 0; i < kInstances; ++i) {
            if (i == rejectAt) doc += "</class></group><group name='B'><class/><class name='D'>";
            const std::string id = std::to_string(i);
            doc += "<instance inst_id='" + id + "'><property name='p'><value>" +
                   std::string(300, 'v') + id + "</value></property><reference rolename='r' " +
                   "groupname='A' classname='C' inst_id='" + id + "'/></instance>";
        }
        return doc + "</class></group></kivinfo>" + tail;
    };
    TempDir dir;
    const auto lastValue = [](const CXmlFile& file) {
        const CClass& c = file.groups().back().classes().back();
        return std::string(c.instances().back().properties().front().values().back());
    };
    {
        LogCapture cap;
        test::writeFile(dir / "big.xml", document(-1, ""));
        CXmlFile file(cap, u16(dir / "big.xml"));
        ASSERT_TRUE(file.isLoaded()) << cap.text();
        EXPECT_EQ(file.groups()[0].classes()[0].instances().size(), size_t{kInstances});
        EXPECT_EQ(lastValue(file), std::string(300, 'v') + std::to_string(kInstances - 1));
        EXPECT_TRUE(file.validateReferences());
    }
    {
        LogCapture cap;
        test::StdinFrom redirect(document(-1, "\n"));
        CXmlFile file(cap);
        EXPECT_TRUE(file.isLoaded()) << cap.text();
        EXPECT_EQ(lastValue(file), std::string(300, 'v') + std::to_string(kInstances - 1));
    }
    for (const bool malformed : {false, true}) {
        LogCapture cap;
        test::writeFile(dir / "rejected.xml", document(kInstances / 2, malformed ? "<x>" : ""));
        CXmlFile file(cap, u16(dir / "rejected.xml"));
        EXPECT_FALSE(file.isLoaded());
        const Lines m = cap.messages();
        ASSERT_GE(m.size(), 2u);
        if (malformed) {
            EXPECT_EQ(m[0], "Parse error on XML file.");
            EXPECT_EQ(m[1], "Fatal Error: Extra content at the end of the document");
            EXPECT_TRUE(file.groups().empty());
        } else {
            EXPECT_EQ(m[5], "Class attribute name not set.");
            ASSERT_EQ(file.groups().size(), 1u);
            EXPECT_EQ(file.groups()[0].classes()[0].instances().size(), size_t{kInstances / 2});
        }
    }
}

std::string inValue(const std::string& text) {
    return "<kivinfo supplier_name='S'><group name='G'><class name='C'><instance><property "
           "name='P'>"
           "<value>" +
           text + "</value></property></instance></class></group></kivinfo>";
}

TEST(CXmlFileLoad, ValueTextIsNormalised) {
    // Line breaks go without a trace, tabs become blanks, blank runs one blank.
    const std::pair<std::string, std::string> valueCases[] = {
        {"  a\r\n\tb  ", "a b"}, {"line\nbreak", "linebreak"}, {"\t", ""}};
    for (const auto& [in, out] : valueCases) {
        LogCapture cap;
        const CXmlFile file(cap, u16(inValue(in)), 0);
        ASSERT_TRUE(file.isLoaded()) << cap.text();
        const CInst& inst = file.groups()[0].classes()[0].instances()[0];
        EXPECT_EQ(std::string(inst.properties().front().values().front()), out) << in;
    }
}

std::string billionLaughs(bool inAttribute) {
    std::string doc = "<!DOCTYPE kivinfo [<!ENTITY l0 'ha'>";
    for (int i = 1; i <= 10; ++i) {
        doc += "<!ENTITY l" + std::to_string(i) + " '";
        for (int j = 0; j < 10; ++j) doc += "&l" + std::to_string(i - 1) + ";";
        doc += "'>";
    }
    return doc + "]>" + (inAttribute ? "<kivinfo supplier_name='&l10;'/>" : inValue("&l10;"));
}

TEST(HostileInput, NeitherFollowedNorCrashing) {
    TempDir dir;
    // Were either file read, its content would break the parse or show up in the body.
    test::writeFile(dir / "secret.txt", "TOP-SECRET<unclosed>");
    test::writeFile(dir / "evil.dtd", "<!ENTITY inner 'TOP-SECRET'> <!ELEMENT broken");
    const std::string secret = "file://" + (dir / "secret.txt").string();
    const std::string dtd = "file://" + (dir / "evil.dtd").string();
    std::string port;
    const int listener = test::listenOnLoopback(port);
    const std::string url = "http://127.0.0.1:" + port + "/x";
    // The parser's limits: nesting, name and text sizes; each at and beyond.
    const auto deep = [](int levels) {
        std::string open, close;
        for (int i = 0; i < levels; ++i) open += "<n>", close += "</n>";
        return "<kivinfo supplier_name='S'>" + open + "x" + close + "</kivinfo>";
    };
    const auto named = [](size_t length) {
        return "<kivinfo supplier_name='S'><" + std::string(length, 'n') + "/></kivinfo>";
    };
    const std::string fiveFold = "<!DOCTYPE kivinfo [<!ENTITY x '" + std::string(100, 'x') +
                                 "'>]>" + inValue("&x;&x;&x;&x;&x;");
    struct Case {
        const char* what;
        std::string doc;
        const char* reason;         // empty: loads
        const char* position = "";  // of the error, when checked
        bool file = false;          // positions are reported for files only
    };
    const Case cases[] = {
        {"entity bomb in text", billionLaughs(false),
         "Fatal Error: Detected an entity reference loop"},
        {"entity bomb in an attribute", billionLaughs(true),
         "Fatal Error: Detected an entity reference loop"},
        {"entity expanded five times", fiveFold, ""},
        {"nesting 257 deep", deep(256), ""},
        {"nesting 258 deep", deep(257), "Fatal Error: Excessive depth in document: 256"},
        {"name of 50000 characters", named(50000), ""},
        {"name of 50001 characters", named(50001), "Fatal Error: Name too long"},
        // Read from a file: a text in memory meets the look-ahead limit first.
        {"text of 10000000 characters", inValue(std::string(10000000, 't')), "", "", true},
        {"text of 10000001 characters", inValue(std::string(10000001, 't')), "Fatal Error: ", "",
         true},
        {"malformed UTF-8 in a file",
         "<kivinfo supplier_name='S'>\n  <group name='a\xC3\x28'/>\n</kivinfo>\n",
         "Fatal Error: Input is not proper UTF-8", " in line 2, 17", true},
        {"external file entity",
         "<!DOCTYPE kivinfo [<!ENTITY x SYSTEM '" + secret + "'>]>" + inValue("&x;"), ""},
        {"external DTD", "<!DOCTYPE kivinfo SYSTEM '" + dtd + "'><kivinfo supplier_name='S'/>", ""},
        {"parameter entity",
         "<!DOCTYPE kivinfo [<!ENTITY % p SYSTEM '" + dtd + "'> %p;]><kivinfo supplier_name='S'/>",
         ""},
        {"DTD over the network",
         "<!DOCTYPE kivinfo SYSTEM '" + url + "'><kivinfo supplier_name='S'/>", ""},
        {"entity over the network",
         "<!DOCTYPE kivinfo [<!ENTITY x SYSTEM '" + url + "'>]>" + inValue("&x;"), ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture cap;
        testing::internal::CaptureStderr();
        std::unique_ptr<CXmlFile> file;
        if (c.file) {
            test::writeFile(dir / "doc.xml", c.doc);
            file = std::make_unique<CXmlFile>(cap, u16(dir / "doc.xml"));
        } else {
            file = test::loadText(cap, c.doc);
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        const Lines m = cap.messages();
        EXPECT_EQ(file->isLoaded(), !*c.reason) << cap.text();
        EXPECT_EQ(cap.text().find("SECRET"), std::string::npos);
        EXPECT_EQ(test::body(*file).find("SECRET"), std::string::npos);
        if (!*c.reason) continue;
        ASSERT_GE(m.size(), 2u);
        EXPECT_EQ(m[0], "Parse error on XML file.");
        EXPECT_EQ(m[1].rfind(c.reason, 0), 0u) << m[1];
        EXPECT_TRUE(!*c.position || std::find(m.begin(), m.end(), c.position) != m.end())
            << cap.text();
    }
    // The loader is done: a connection it had made would be waiting now.
    pollfd pfd{listener, POLLIN, 0};
    EXPECT_EQ(::poll(&pfd, 1, 0), 0) << "the loader connected to " << url;
    ::close(listener);
}

}  // namespace
}  // namespace kivreg::test
