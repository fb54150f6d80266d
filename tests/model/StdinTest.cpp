// Standard input is replaced by a file for the duration of each case.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "model/CXmlFile.h"
#include "model/ModelTestUtil.h"

namespace kivreg {
namespace {

using test::LogCapture;
using test::u16;
using test::u8;

class StdinFrom {
public:
    explicit StdinFrom(const std::string& bytes) {
        test::writeFile(m_dir / "stdin", bytes);
        m_saved = ::dup(0);
        const int fd = ::open((m_dir / "stdin").c_str(), O_RDONLY);
        ::dup2(fd, 0);
        ::close(fd);
        std::clearerr(stdin);
    }
    ~StdinFrom() {
        ::dup2(m_saved, 0);
        ::close(m_saved);
        std::clearerr(stdin);
    }
    StdinFrom(const StdinFrom&) = delete;
    StdinFrom& operator=(const StdinFrom&) = delete;

private:
    test::TempDir m_dir;
    int m_saved = -1;
};

TEST(CXmlFileStdin, LastCharacterComesOutTwice) {
    const std::pair<std::string, std::string> cases[] = {
        {"abc", "abcc"},
        {"<a/>\n", "<a/>\n\n"},
        {"x\xC3\xBC", "x\xC3\xBC\xC3\xBC"},          // a whole character, not its last byte
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80\xF0\x9F\x98\x80"},
        {"", ""},
    };
    for (const auto& [in, out] : cases) {
        SCOPED_TRACE(in);
        StdinFrom redirect(in);
        EXPECT_EQ(u8(CXmlFile::getStdin()), out);
    }
}

TEST(CXmlFileStdin, DocumentEndingInALineEndLoads) {
    StdinFrom redirect("<kivinfo supplier_name='S'><group name='G'/></kivinfo>\n");
    LogCapture cap;
    CXmlFile file(cap);
    EXPECT_TRUE(file.isLoaded());
    EXPECT_EQ(file.groups().size(), 1u);
}

TEST(CXmlFileStdin, EmptyFileNameReadsStdinAndTheDoubledBracketIsAnError) {
    StdinFrom redirect("<kivinfo supplier_name='S'/>");
    LogCapture cap;
    CXmlFile file(cap, u"");
    EXPECT_FALSE(file.isLoaded());
    EXPECT_EQ(cap.messages(), (std::vector<std::string>{
                                  "Parse error on XML file.",
                                  "Fatal Error: Extra content at the end of the document",
                                  " entity=", " in line 1, 29",
                                  "Failed to load and parse XML input from stdin."}));
}

TEST(CXmlFileStdin, EmptyInputIsNotLoaded) {
    StdinFrom redirect("");
    LogCapture cap;
    CXmlFile file(cap);
    EXPECT_FALSE(file.isLoaded());
    EXPECT_EQ(cap.messages().back(), "Failed to load and parse XML input from stdin.");
}

}  // namespace
}  // namespace kivreg
