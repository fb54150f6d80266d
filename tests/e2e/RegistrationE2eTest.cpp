// The kivreg program against the local directory server.

#include "E2eFixture.h"

namespace kivreg::test {
namespace {

using Registration = E2e;

TEST_F(Registration, OverHttpStoresTheTransferDocument) {
    DirServer server(m_dir.path(), {});
    const RunOptions piped{.input = kDocument};
    // The old format never escapes values: an "&" would make the document
    // malformed, and the server would refuse it.
    std::string plain = kDocument;
    plain.replace(plain.find(" &amp; co"), 9, " co");
    std::vector<std::string> old = connect(server, {"-oldtransferdtd"});
    old[1] = writeDoc("old.xml", plain);
    const std::string current =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
        "<kivinfo supplier_name=\"E2E Supplier\" supplier_version=\"2.1\">"
        "<group name=\"Systems\" data_type=\"\" data_version=\"\" group_type=\"SPECIFIC\">"
        "<class name=\"Computer\" sync=\"TRUE\" merge_properties=\"TRUE\" clean=\"NONE\">"
        "<instance inst_id=\"h1\"><property name=\"Name\" sourceformat=\"text\">"
        "<value>h1 &amp; co \xC3\xA9t\xC3\xA9</value></property>"
        "<reference rolename=\"Parent\" groupname=\"Systems\" classname=\"Cluster\" "
        "inst_id=\"c1\"/></instance></class>"
        "<class name=\"Cluster\" sync=\"TRUE\" merge_properties=\"TRUE\" clean=\"NONE\">"
        "<instance inst_id=\"c1\"></instance></class></group></kivinfo>";
    const struct {
        std::vector<std::string> args;
        RunOptions options;
        std::string stored;
    } cases[] = {
        {connect(server), {}, current},  // the document from a file, then from standard input
        {{"-user", "supplier", "-pass", "s3cret-pw", "-host", "127.0.0.1", "-port",
          server.portText()},
         piped,
         current},
        {old,
         {},
         "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
         "<qordata type=\"E2E Supplier\" version=\"2.1\">"
         "<instance classname=\"Computer\" inst_id=\"h1\"><property name=\"Name\">"
         "<value>h1 co \xC3\xA9t\xC3\xA9</value></property>"
         "<reference rolename=\"Parent\" classname=\"Cluster\" inst_id=\"c1\"/></instance>"
         "<instance classname=\"Cluster\" inst_id=\"c1\"></instance></qordata>"},
    };
    size_t stored = 0;
    for (const auto& c : cases) {
        const RunResult r = kivreg(c.args, c.options);
        EXPECT_EQ(r.exitCode, 0) << r.out;
        EXPECT_THAT(r.out,
                    HasSubstr("Used URL: http://127.0.0.1:" + server.portText() + "/kiv/ds"));
        EXPECT_THAT(r.out, Not(HasSubstr("s3cret-pw")));
        ASSERT_EQ(server.stored().size(), ++stored);
        EXPECT_EQ(server.stored().back(), c.stored);
    }
}

TEST_F(Registration, SymbolFiles) {
    DirServer server(m_dir.path(), {});
    writeFile(m_dir / "ok.sym", "# site values\nsite = Berlin\n");
    writeDoc("sym.xml",
             "<kivinfo supplier_name=\"S\"><group name=\"G\"><class name=\"C\">"
             "<instance inst_id=\"i\"><property name=\"Site\"><value>${site}</value></property>"
             "</instance></class></group></kivinfo>\n");
    const RunResult r = kivreg(registering(path("sym.xml"), "supplier", server.portText(),
                                           {"-symbolfile", path("ok.sym"), "-datatrace"}));
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("### site = \"Berlin\""));
    // The data trace shows the document before and after substitution.
    EXPECT_EQ(occurrences(r.out, ">>> Begin Parsed Data >>>"), 2u);
    EXPECT_THAT(r.out, HasSubstr("Parsed Value: ${site}"));
    EXPECT_THAT(r.out, HasSubstr("Parsed Value: Berlin"));
    ASSERT_EQ(server.stored().size(), 1u);
    EXPECT_THAT(server.stored()[0], HasSubstr("<value>Berlin</value>"));
}

TEST_F(Registration, HttpTraceWithLogFileWritesTheTraceFile) {
    DirServer server(m_dir.path(), {});
    const RunResult r = kivreg(connect(server, {"-httptrace", "-logfile", path("run.log")}));
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr(">>> BEGIN HTTP MESSAGE BODY >>>"));
    const std::string log = readFile(m_dir / "run.log");
    EXPECT_THAT(log, HasSubstr("HTTP response: Success. HTTP status code: 200"));
    const std::string trace = readFile(m_dir / "kivreg_http_trace.log");
    EXPECT_THAT(trace, HasSubstr("HttpRequest::connect"));
    // Each entry one line: the time, then who wrote it.
    EXPECT_THAT(trace, testing::ContainsRegex("(^|\n)[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] "
                                              "[0-9:]{8} [0-9]{4} \\[[^]\n]+:[0-9]+\\]: "
                                              "HttpRequest::connect"));
    for (const char* secret : {"s3cret-pw", "c3VwcGxpZXI6czNjcmV0LXB3"})  // clear, and as Basic
        EXPECT_THAT(trace + log + r.out, Not(HasSubstr(secret)));
}

TEST_F(Registration, BadInputEndsWithAMessageAndNothingIsSent) {
    DirServer server(m_dir.path(), {});
    const std::string good = writeDoc("good.xml", kDocument);
    writeFile(m_dir / "empty.xml", "");
    writeFile(m_dir / "garbage.conn", "not a connect file at all");
    writeFile(m_dir / "doubling.sym", "a=${a}${a}\n");
    writeDoc("doubling.xml", "<kivinfo supplier_name=\"${a}\"/>");
    struct Row {
        const char* what;
        std::vector<std::string> args;
        int exit;
        std::string message;
    };
    const std::string port = server.portText();
    const std::vector<std::string> to = {"-user", "u", "-host", "127.0.0.1", "-port", port};
    auto with = [&](std::vector<std::string> args) {
        args.insert(args.end(), to.begin(), to.end());
        return args;
    };
    const Row rows[] = {
        // clang-format off
        {"missing document", with({"-file", path("nope.xml")}), 1,
         "Failed to load and parse XML input file: " + path("nope.xml")},
        {"empty document", with({"-file", path("empty.xml")}), 1, "Parse error on XML file."},
        {"no user", {"-file", good, "-pass", "s3cret-pw", "-host", "127.0.0.1", "-port", port}, 1,
         "Incomplete HTTP connect data"},
        {"connect file of another format", {"-file", good, "-connectfile", path("garbage.conn")}, 1,
         "Failed to read connect file: " + path("garbage.conn")},
        {"symbols doubling with every pass",
         with({"-file", path("doubling.xml"), "-symbolfile", path("doubling.sym")}), 1,
         "Symbol substitution stopped: a text would exceed 1048576 units in the supplier header, "
         "supplier_name."},
        {"symbol file missing", with({"-file", good, "-symbolfile", path("missing.sym")}), 1,
         "-symbolfile " + path("missing.sym")},
        {"retries beyond 100", with({"-file", good, "--retry", "101"}), 1,
         "Option --retry 101 refused"},
        {"negative retry time", with({"-file", good, "--retry-max-time", "-1"}), 1,
         "Option --retry-max-time -1 refused"},
        {"timeout empty",
         {"-file", good, "-connecttimeout", "", "-user", "u", "-host", "h", "-port", "1"}, 1,
         "Option -connecttimeout  refused"},
        // clang-format on
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        const RunResult r = kivreg(row.args);
        EXPECT_EQ(r.exitCode, row.exit) << r.out;
        EXPECT_THAT(r.out, HasSubstr(row.message));
        EXPECT_THAT(r.out, Not(HasSubstr("s3cret-pw")));
    }
    EXPECT_TRUE(server.stored().empty());
}

}  // namespace
}  // namespace kivreg::test
