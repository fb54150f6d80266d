// libkivreg.so as a host sees it: its exported surface and a C caller.

#include <regex>
#include <set>
#include <sstream>

#include "E2eFixture.h"

namespace kivreg::test {
namespace {

TEST(SharedLibrary, ExportsExactlyTheTwentyTwoFunctions) {
    const RunResult r = run({"/usr/bin/nm", "-D", "--defined-only", kLibrary});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    std::set<std::string> exported;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string address, type, name;
        fields >> address >> type >> name;
        if (type == "T") exported.insert(name);
        // Anything else defined and global would be a leak of internals.
        else if (type != "A" && !name.empty())
            ADD_FAILURE() << "unexpected symbol " << line;
    }
    // Exactly what the public header declares, and that is the 22 functions.
    std::set<std::string> declared;
    const std::string header = readFile(KIVREG_SOURCE_DIR "/include/kivreg.h");
    const std::regex declaration(R"(KIVREG_API [a-z]+ (KivReg\w+)\()");
    for (std::sregex_iterator it(header.begin(), header.end(), declaration), end; it != end; ++it) {
        declared.insert((*it)[1]);
    }
    EXPECT_EQ(declared.size(), 22u);
    EXPECT_EQ(exported, declared);

    const RunResult soname = run({"/usr/bin/objdump", "-p", kLibrary});
    EXPECT_THAT(soname.out, HasSubstr("SONAME               libkivreg.so.1"));
}

class CHost : public E2e {};

TEST_F(CHost, RegistersThroughDlopenAndDlsym) {
    DirServer server(m_dir.path(), {.user = "host", .password = "pw"});
    writeDoc("doc.xml", kDocument);
    const RunResult r = run({KIVREG_BINARY_DIR "/kivreg_dlopen_client", kLibrary, server.portText(),
                             "host", "pw", path("doc.xml")});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("Invalid log file specified."));
    EXPECT_THAT(r.out, HasSubstr("HTTP open timeout     = 30 sec"));
    EXPECT_THAT(r.out, HasSubstr("KivRegSendReceiveData=0"));
    EXPECT_EQ(server.stored().size(), 1u);
}

}  // namespace
}  // namespace kivreg::test
