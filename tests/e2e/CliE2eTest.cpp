// The program's own command line: long options beside the classic ones.
#include <ctime>
#include <filesystem>
#include <regex>

#include "E2eFixture.h"

namespace kivreg::test {
namespace {

using Cli = E2e;

TEST_F(Cli, LongOptionsAreTakenApartFromTheClassicOnes) {
    const std::string usage = readFile(KIVREG_TEST_DATA_DIR "/usage.txt");
    ASSERT_FALSE(usage.empty());

    RunResult r = kivreg({"--help"});
    EXPECT_EQ(r.exitCode, 0);
    ASSERT_TRUE(r.out.starts_with(usage + "\nExtensions:\n")) << r.out;
    EXPECT_EQ(kivreg({"-help"}).out, usage);  // classic help unchanged
    r = kivreg({"--version"});
    EXPECT_EQ(r.out, kivreg({"-version"}).out);
    const std::regex version(R"(KIV Registration Program\n \[\d+\.\d+\.\d+\]  \()"
                             R"([A-Z][a-z]{2} [ 1-3]\d \d{4}\) \[Unicode\]\n)");
    EXPECT_TRUE(std::regex_match(r.out, version)) << r.out;

    struct Refused {
        std::vector<std::string> args;
        std::string message;
    };
    for (const Refused& c : std::vector<Refused>{
             // Refused before anything else is done: -help is not reached.
             {{"-help", "--xyz=1"}, "Unknown option --xyz (kivreg --help lists the options).\n"},
             {{"--", "-help"}, "Unknown option -- (kivreg --help lists the options).\n"},
             {{"--retry"}, "Option --retry needs a value <n>.\n"},
             {{"--check=yes"}, "Option --check takes no value.\n"},
         }) {
        r = kivreg(c.args);
        EXPECT_EQ(r.exitCode, 1) << c.args[0];
        EXPECT_EQ(r.out, c.message);
    }
    // A classic value option takes the next argument even when it looks long;
    // a long option's value is never seen by the classic parser.
    r = kivreg({"-logfile", "--help", "--check", "-version"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.out.starts_with("KIV Registration Program\n")) << r.out;
    r = kivreg({"--output", "-help", "--version"});
    EXPECT_TRUE(r.out.starts_with("KIV Registration Program\n")) << r.out;
}

using Extensions = E2e;

TEST_F(Extensions, RetriesOnlyWhatMayPassAndResendTheSameBody) {
    const std::time_t now = std::time(nullptr);
    const char* const httpDate = "%a, %d %b %Y %H:%M:%S GMT";
    struct Case {
        ServerOptions server;
        std::vector<std::string> options;
        int exitCode;
        size_t requests;
        std::vector<std::string> retryLines;
    };
    const std::string unavailable = "HTTP status 503 (Service Unavailable)";
    for (const Case& c : std::vector<Case>{
             // clang-format off
             {{.first = "503,503", .retryAfter = "0"}, {"--retry", "3"}, 0, 3,
              {"Retry 1 of 3 in 0 s: " + unavailable, "Retry 2 of 3 in 0 s: " + unavailable}},
             {{.status = 404, .retryAfter = "0"}, {"--retry", "3"}, 1, 1, {}},
             {{.first = "429", .retryAfter = utc(httpDate, now - 3600)}, {"--retry=1"}, 0, 2,
              {"Retry 1 of 1 in 0 s: HTTP status 429 (Too Many Requests)"}},
             // A wait beyond the budget ends the retrying.
             {{.first = "503", .retryAfter = utc(httpDate, now + 3600)},
              {"--retry", "5", "--retry-max-time", "60"}, 1, 1, {}},
             {{.status = 503, .retryAfter = "0"}, {}, 1, 1, {}},  // no retries by default
             // clang-format on
         }) {
        TempDir dir;
        DirServer server(dir.path(), c.server);
        const RunResult r = kivreg(connect(server.portText(), c.options));
        EXPECT_EQ(r.exitCode, c.exitCode) << r.out;
        const auto stored = server.stored();
        ASSERT_EQ(stored.size(), c.requests) << r.out;
        for (const std::string& doc : stored) EXPECT_EQ(doc, stored[0]);
        EXPECT_EQ(occurrences(r.out, "Retry "), c.retryLines.size()) << r.out;
        for (const std::string& line : c.retryLines)
            EXPECT_NE(r.out.find(line), std::string::npos) << r.out;
        EXPECT_EQ(occurrences(r.out, "*** Start KIV Registration ***"), 1u);
        EXPECT_EQ(occurrences(r.out, "Used URL: "), c.requests);
    }

    // No server: every attempt fails to connect until the budget is spent.
    const RunResult r = kivreg(connect(closedPort(), {"--retry", "2", "--retry-max-time", "3"}));
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_NE(r.out.find("Retry 1 of 2 in "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(" s: connection failed"), std::string::npos) << r.out;
    EXPECT_EQ(occurrences(r.out, "Failed to open HTTP connection!"),
              occurrences(r.out, "Retry ") + 1);
}

TEST_F(Extensions, CheckRendersWithoutConnecting) {
    writeFile(m_dir / "bad.sym", "this line has no equals sign\n");
    std::string dangling = kDocument;
    dangling.replace(dangling.find("inst_id=\"c1\"/>"), 14, "inst_id=\"zz\"/>");
    struct Case {
        std::vector<std::string> args;
        int exitCode;
        std::string line;
    };
    for (const Case& c : std::vector<Case>{
             {{"-file", writeDoc("doc.xml", kDocument)}, 0, "Document checked: "},
             {{"-file", writeDoc("dangling.xml", dangling)}, 1, "Invalid XML data file input."},
             {{"-file", path("doc.xml"), "-symbolfile", path("bad.sym")},
              3,
              "Syntax error in symbol line"},
         }) {
        std::vector<std::string> args = {"--check"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const RunResult r = kivreg(args);
        EXPECT_EQ(r.exitCode, c.exitCode) << r.out;
        EXPECT_NE(r.out.find(c.line), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("Registration ***"), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("Used URL"), std::string::npos) << r.out;
    }
}

TEST_F(Extensions, OutputIsExactlyWhatIsSent) {
    DirServer server(m_dir.path(), {});
    RunResult r = kivreg(connect(server.portText(), {"--output", path("sent.xml")}));
    ASSERT_EQ(r.exitCode, 0) << r.out;
    ASSERT_EQ(server.stored().size(), 1u);
    const std::string sent = server.stored()[0];
    EXPECT_EQ(readFile(m_dir / "sent.xml"), sent);

    const RunOptions inDir{.cwd = m_dir.path().string()};
    // Standard output carries the document alone; the log goes to standard error.
    r = run({"/bin/sh", "-c",
             "$KIVREG_TEST_EMULATOR '" + kProgram +
                 "' --check --output - -file doc.xml >body.xml 2>log.txt"},
            inDir);
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_EQ(readFile(m_dir / "body.xml"), sent);
    EXPECT_NE(readFile(m_dir / "log.txt")
                  .find("Document checked: " + std::to_string(sent.size()) + " bytes to send."),
              std::string::npos);
    r = run({"/bin/sh", "-c",
             "$KIVREG_TEST_EMULATOR '" + kProgram +
                 "' --check --output - -file doc.xml >/dev/full 2>log.txt"},
            inDir);
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_NE(readFile(m_dir / "log.txt")
                  .find("Failed to write the transfer document to -: No space left on device"),
              std::string::npos)
        << readFile(m_dir / "log.txt");

    // Nothing partial stays behind, and nothing is sent after a failed copy.
    r = kivreg(connect(server.portText(), {"--output", path("missing/sent.xml")}));
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_NE(r.out.find("Failed to write the transfer document to " + path("missing/sent.xml") +
                         ": No such file or directory"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(server.stored().size(), 1u);
    r = kivreg(
        {"--check", "--output", path("none.xml"), "-file", writeDoc("bad.xml", "<kivinfo>")});
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_FALSE(std::filesystem::exists(m_dir / "none.xml"));
    for (const auto& e : std::filesystem::directory_iterator(m_dir.path()))
        EXPECT_EQ(e.path().filename().string().find(".xml."), std::string::npos) << e.path();
}

// The five characters in every attribute and in a value, in both formats:
// each document is one that an XML parser reads back as it was written.
TEST_F(Extensions, EveryDocumentSentIsWellFormed) {
    const std::string in = "a&amp;b&lt;c&quot;d'e&gt;f", text = "a&b<c\"d'e>f";
    const auto tag = [&](const std::string& name, std::vector<std::string> attributes) {
        std::string out = "<" + name;
        for (const std::string& a : attributes) out += " " + a + "=\"" + in + "\"";
        return out + ">";
    };
    const std::string doc = writeDoc(
        "special.xml",
        tag("kivinfo", {"supplier_name", "supplier_version", "supplier_vendor", "model_version"}) +
            tag("group", {"name", "data_type", "data_version", "group_type"}) +
            tag("rootclass", {"name", "sync", "merge_roots", "merge_properties", "clean"}) +
            tag("instance", {"inst_id"}) + tag("property", {"name", "sourceformat"}) + "<value>" +
            in + "]]&gt;</value></property>" +
            tag("reference", {"rolename", "groupname", "classname", "inst_id"}) +
            "</reference></instance></rootclass></group></kivinfo>");
    for (const bool old : {false, true}) {
        SCOPED_TRACE(old ? "old format" : "current format");
        std::vector<std::string> args = {"--check", "-file", doc, "--output", path("body.xml")};
        if (old) args.push_back("-oldtransferdtd");
        const RunResult r = kivreg(args);
        ASSERT_EQ(r.exitCode, 0) << r.out;
        const RunResult lint = run({"/usr/bin/xmllint", "--noout", path("body.xml")});
        EXPECT_EQ(lint.exitCode, 0) << lint.out << readFile(path("body.xml"));
        const auto read = [&](const std::string& xpath) {
            return run({"/usr/bin/xmllint", "--xpath", "string(" + xpath + ")", path("body.xml")})
                .out;
        };
        // An attribute that holds the text in each format.
        EXPECT_EQ(read(old ? "/qordata/instance/@classname" : "//reference/@classname"),
                  text + "\n");
        EXPECT_EQ(read("//value"), text + "]]>\n");
    }
}

TEST_F(Extensions, ProgressLineOnlyOnATerminal) {
    // A body of about 1.9 MiB: two pieces.
    std::string values;
    for (int i = 0; i < 20000; ++i)
        values += "<property name=\"P" + std::to_string(i) + "\"><value>" + std::string(48, 'x') +
                  "</value></property>";
    std::string big = kDocument;
    big.insert(big.find("<reference"), values);
    DirServer server(m_dir.path(), {.first = "503"});
    std::vector<std::string> registration = connect(server.portText(), {"--spool", path("spool")});
    registration[1] = writeDoc("big.xml", big);
    const std::vector<std::string> flush = {"--flush",   "--spool", path("spool"),    "-user",
                                            "supplier",  "-pass",   "s3cret-pw",      "-host",
                                            "127.0.0.1", "-port",   server.portText()};
    const struct {
        const char* what;
        const std::vector<std::string>& args;
        bool terminal;
        int exitCode;
    } cases[] = {{"rendered as it is sent, refused and kept", registration, true, 1},
                 {"the kept bytes delivered", flush, true, 0},
                 {"no terminal", registration, false, 0}};
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        const RunResult r = kivreg(k.args, {.terminal = k.terminal});
        EXPECT_EQ(r.exitCode, k.exitCode) << r.out.substr(0, 2000);
        const size_t line = r.out.find("\rkivreg: ");
        EXPECT_EQ(line != std::string::npos, k.terminal);
        if (line != std::string::npos) {
            // The first piece is always drawn: the clock started before it.
            EXPECT_EQ(r.out.substr(line, 29), "\rkivreg: 1.0 MiB of 1.9 MiB (");
            EXPECT_NE(r.out.find(" MiB/s", line), std::string::npos);
            // Blanked and returned over before the log goes on: the next
            // entry's date starts at the line's beginning.
            const size_t next = r.out.find("HTTP send successful.", line);
            ASSERT_GT(next, line + 27);
            EXPECT_EQ(r.out.substr(next - 27, 2), " \r") << r.out.substr(line, next - line);
        }
    }
    EXPECT_EQ(server.stored().size(), 3u);  // the refused one too
}

}  // namespace
}  // namespace kivreg::test
