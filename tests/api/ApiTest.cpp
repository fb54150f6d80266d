// The settings store, and the exported functions called in-process.

#include <gmock/gmock.h>

#include <regex>

#include "TestServer.h"
#include "api/ApiState.h"
#include "api/CPArgs.h"
#include "api/Spool.h"
#include "api/Vocabulary.h"
#include "kivreg.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

using testing::HasSubstr;
using testing::Not;

// Parses a command line given as separate words (the program name first).
CPArgs parse(std::vector<std::u16string> words) {
    std::vector<char16_t*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    return CPArgs(argv.data());
}

struct Entry {
    std::u16string name;
    std::u16string value;
    bool hasValue;
    bool operator==(const Entry&) const = default;
};

std::vector<Entry> entries(const CPArgs& args) {
    std::vector<Entry> out;
    for (const auto& a : args.entries()) out.push_back({a.getName(), a.getValue(), a.hasValue()});
    return out;
}

void PrintTo(const Entry& e, std::ostream* os) {
    *os << test::u8(e.name) << "=" << test::u8(e.value) << (e.hasValue ? "" : " (switch)");
}

TEST(CPArgs, ParsesCommandLines) {
    struct Row {
        const char* what;
        std::vector<std::u16string> argv;
        std::vector<Entry> expected;
    };
    const Row rows[] = {
        // clang-format off
        {"values and a switch", {u"kivreg", u"-host", u"h", u"-port", u"8080", u"-usehttps"},
         {{u"-host", u"h", true}, {u"-port", u"8080", true}, {u"-usehttps", u"", false}}},
        {"a value option takes a dashed value", {u"kivreg", u"-connecttimeout", u"-5"},
         {{u"-connecttimeout", u"-5", true}}},
        {"-pass swallows the next option", {u"kivreg", u"-pass", u"-host", u"h"},
         {{u"-pass", u"-host", true}, {u"", u"h", true}}},
        {"a switch takes a word", {u"kivreg", u"-usehttps", u"x"}, {{u"-usehttps", u"x", true}}},
        {"a lone word becomes a nameless entry", {u"kivreg", u"data.xml", u"-stdin"},
         {{u"", u"data.xml", true}, {u"-stdin", u"", false}}},
        {"a lone word with an inner dash is dropped", {u"kivreg", u"my-data.xml", u"-stdin"},
         {{u"-stdin", u"", false}}},
        {"an inner dash is fine as a value", {u"kivreg", u"-file", u"my-data.xml"},
         {{u"-file", u"my-data.xml", true}}},
        {"an empty word is a value", {u"kivreg", u"-pass", u""}, {{u"-pass", u"", true}}},
        {"a value option at the end stays without value", {u"kivreg", u"-stdin", u"-file"},
         {{u"-stdin", u"", false}, {u"-file", u"", false}}},
        {"repeated options are all kept", {u"kivreg", u"-host", u"a", u"-host", u"b"},
         {{u"-host", u"a", true}, {u"-host", u"b", true}}},
        {"unknown options are kept as switches", {u"kivreg", u"-bogus", u"-help"},
         {{u"-bogus", u"", false}, {u"-help", u"", false}}},
        {"program name only", {u"kivreg"}, {}},
        // clang-format on
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(entries(parse(row.argv)), row.expected);
    }
    // A vector without even the program's name (a process started with argc 0)
    // ends at its first entry: what lies behind it is no argument.
    std::u16string behind = u"-host";
    char16_t* noName[] = {nullptr, behind.data(), nullptr};
    EXPECT_TRUE(CPArgs(noName).entries().empty());
    EXPECT_TRUE(CPArgs(nullptr).entries().empty());
}

TEST(CPArgs, FirstOccurrenceWinsAndLookupsRespectCase) {
    const CPArgs args =
        parse({u"kivreg", u"-host", u"first", u"-HOST", u"upper", u"-host", u"third"});
    EXPECT_EQ(args.getArg(u"-host"), u"first");
    EXPECT_EQ(args.getArg(u"-Host"), u"");
    EXPECT_EQ(args.getArgIgnCase(u"-Host"), u"first");
    EXPECT_TRUE(args.isSwitchSet(u"-HOST"));
    EXPECT_FALSE(args.isSwitchSet(u"-hOST"));
    EXPECT_TRUE(args.isSwitchSetIgnCase(u"-hOST"));
    EXPECT_FALSE(args.hasArg(u"-port"));
    // Latin-1 letters fold too; the sign between them does not.
    const CPArgs latin = parse({u"kivreg", u"-\u00C4", u"-\u00D7"});
    EXPECT_TRUE(latin.isSwitchSetIgnCase(u"-\u00E4"));
    EXPECT_FALSE(latin.isSwitchSetIgnCase(u"-\u00F7"));
}

// Adding replaces and moves to the end; removal passes over the entry after a removed one.
TEST(CPArgs, AddAndRemove) {
    CPArgs args = parse({u"kivreg", u"-x", u"-x", u"-y", u"-x"});
    args.addArg(u"-host", u"a");
    args.addSwitch(u"-usehttps");
    args.addArg(u"-host", u"b");
    args.removeArg(u"-x");
    EXPECT_EQ(entries(args), (std::vector<Entry>{{u"-x", u"", false},
                                                 {u"-y", u"", false},
                                                 {u"-usehttps", u"", false},
                                                 {u"-host", u"b", true}}));
    args.removeArg(u"-x");
    args.removeArg(u"-usehttps");
    EXPECT_EQ(entries(args), (std::vector<Entry>{{u"-y", u"", false}, {u"-host", u"b", true}}));
}

TEST(CPArgs, NumericTextAndValue) {
    // Not numbers (a full-width digit is not a digit): the largest value stands in.
    for (const std::u16string text : {u"", u"+", u"-", u" 7", u"7 ", u"7a", u"1+1", u"\uFF17"}) {
        EXPECT_FALSE(CPArgs::isNumeric(text)) << test::u8(text);
        EXPECT_EQ(CPArgs::getNumber(text), 2147483647) << test::u8(text);
    }
    const std::pair<std::u16string, int32_t> numbers[] = {
        {u"7", 7},
        {u"+7", 7},
        {u"-0", 0},
        {u"65536", 65536},
        {u"-1", -1},
        {u"2147483647", 2147483647},
        {u"99999999999", 2147483647},
        {u"-2147483648", -2147483647 - 1},
        {u"-99999999999", -2147483647 - 1},
    };
    for (const auto& [text, value] : numbers) {
        EXPECT_TRUE(CPArgs::isNumeric(text)) << test::u8(text);
        EXPECT_EQ(CPArgs::getNumber(text), value) << test::u8(text);
    }
}

const char16_t* const kDoc =
    u"<kivinfo supplier_name=\"S\"><group name=\"G\"><class name=\"C\">"
    u"<instance inst_id=\"i\"><reference rolename=\"r\" groupname=\"G\" classname=\"C\" "
    u"inst_id=\"i\"/></instance></class></group></kivinfo>";

class Api : public testing::Test {
protected:
    void SetUp() override { reset(); }
    // Empty settings, no document, a fresh capture of standard output.
    void reset() {
        output();
        api::state().gArgs = CPArgs();
        api::state().gpXmlFile.reset();
        api::state().gpSymbols.reset();
        testing::internal::CaptureStdout();
        m_capturing = true;
    }
    void TearDown() override { output(); }
    // What was written to standard output since the last call.
    std::string output() {
        if (!m_capturing) return m_out;
        m_out = testing::internal::GetCapturedStdout();
        m_capturing = false;
        return m_out;
    }
    const CPArgs& args() { return api::state().gArgs; }

    test::TempDir m_dir;

private:
    bool m_capturing = false;
    std::string m_out;
};

// The switches the program sets show their effect in the end-to-end tests; what only a
// host of the library can do is checked here.
TEST_F(Api, SettersRecordUnderTheOptionNames) {
    KivRegSetOldTransferOn();
    KivRegSetNewTransferOn();
    EXPECT_FALSE(args().isSwitchSet(CMDARG_OLDTRANSFERDTD));

    EXPECT_EQ(KivRegSetConnectTimeout(u"30"), 1);
    EXPECT_EQ(KivRegSetConnectTimeout(u"45"), 1);
    EXPECT_EQ(KivRegSetConnectTimeout(u""), -1);
    EXPECT_EQ(KivRegSetSendTimeout(nullptr), -1);
    EXPECT_EQ(KivRegSetReceiveTimeout(u"abc"), 1) << "checked by the run, not here";
    EXPECT_EQ(args().getArg(CMDARG_CONNECT_TIMEOUT), u"45");
    EXPECT_EQ(args().getArg(CMDARG_RECEIVE_TIMEOUT), u"abc");

    EXPECT_EQ(KivRegSetConnectData(u"h", u"80", u"u", u""), 1);
    EXPECT_EQ(args().getArg(CMDARG_HTTP_PASS), u"");
    EXPECT_TRUE(args().hasArg(CMDARG_HTTP_PASS));
    EXPECT_EQ(KivRegSetConnectData(u"other", u"", u"u2", u"p"), -1);
    EXPECT_EQ(KivRegSetConnectData(u"other", u"81", nullptr, u"p"), -1);
    EXPECT_EQ(args().getArg(CMDARG_HTTP_HOST), u"h");
    EXPECT_EQ(args().getArg(CMDARG_HTTP_PORT), u"80");

    EXPECT_EQ(KivRegSetSymbolFile(u""), 1);
    EXPECT_FALSE(args().hasArg(CMDARG_SYMBOL_FILE));
    EXPECT_EQ(KivRegSetSymbolFile(u16(m_dir / "absent.sym").c_str()), -1);
    EXPECT_FALSE(args().hasArg(CMDARG_SYMBOL_FILE));
    test::writeFile(m_dir / "s.sym", "a=b\n");
    EXPECT_EQ(KivRegSetSymbolFile(u16(m_dir / "s.sym").c_str()), 1);
    EXPECT_EQ(args().getArg(CMDARG_SYMBOL_FILE), u16(m_dir / "s.sym"));
}

TEST_F(Api, OldTransferChoiceReachesOnlyDocumentsLoadedAfterIt) {
    EXPECT_EQ(KivRegSetXML(kDoc), 1);
    KivRegSetOldTransferOn();
    EXPECT_FALSE(api::state().gpXmlFile->useOldTransferDtd());
    EXPECT_EQ(KivRegSetXML(kDoc), 1);
    EXPECT_TRUE(api::state().gpXmlFile->useOldTransferDtd());
    EXPECT_EQ(KivRegSetXML(u"<kivinfo"), -1);
    ASSERT_TRUE(api::state().gpXmlFile) << "a failed document stays for the run to report";
    EXPECT_FALSE(api::state().gpXmlFile->isLoaded());
    EXPECT_EQ(KivRegSetXMLFile(u16(m_dir / "none.xml").c_str()), -1);
    EXPECT_THAT(output(), HasSubstr("Failed to load and parse XML input file: "));
}

TEST_F(Api, LogfileNames) {
    KivRegSetLogfile(nullptr);
    KivRegSetLogfile(u"");
    const std::u16string logName = u16(m_dir / "api.log");
    KivRegSetLogfile(logName.c_str());
    api::state().gLog << timestamp << u"after the switch" << endlog;
    const std::string out = output();
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 4);
    EXPECT_THAT(out, HasSubstr("Invalid log file specified."));
    EXPECT_THAT(out, HasSubstr("Used logfile: " + test::u8(logName)));
    const std::string file = test::readFile(m_dir / "api.log");
    EXPECT_THAT(file, Not(HasSubstr("Used logfile")));
    EXPECT_THAT(file, HasSubstr("after the switch"));
    EXPECT_EQ(args().getArg(CMDARG_LOGFILENAME), logName);
    api::state().gLog.setFileName(u"");
    api::state().gLog.close();
}

TEST_F(Api, ConnectFilesAreCheckedWhenSet) {
    const std::u16string conn = u16(m_dir / "c.conn");
    EXPECT_EQ(
        KivRegPerformConfigWithArguments(conn.c_str(), false, u"u", u"pw", u"h", u"8080", true), 0);
    EXPECT_EQ(KivRegSetConnectFile(conn.c_str()), 1);
    EXPECT_EQ(args().getArg(CMDARG_CONNECT_FILE), conn);
    EXPECT_EQ(KivRegSetConnectFile(u""), -1);

    const std::u16string missing = u16(m_dir / "missing.conn");
    EXPECT_EQ(KivRegSetConnectFileWithKeyFile(missing.c_str()), -1);
    // An empty host is stored (nothing checks it there) but refused here.
    const std::u16string noHost = u16(m_dir / "nohost.conn");
    EXPECT_EQ(
        KivRegPerformConfigWithArguments(noHost.c_str(), true, u"u", u"pw", u"", u"443", false), 0);
    EXPECT_EQ(KivRegSetConnectFileWithKeyFile(noHost.c_str()), -1);
    const std::string out = output();
    EXPECT_THAT(out, HasSubstr("Failed to read connect file: " + test::u8(missing)));
    EXPECT_THAT(out, HasSubstr("Incomplete HTTP connect information specified in file " +
                               test::u8(noHost)));
    EXPECT_THAT(out, Not(HasSubstr("pw\n")));
    EXPECT_EQ(args().getArg(CMDARG_CONNECT_FILE), conn);
}

// 80, 443 and the unprivileged ports; the other privileged ones are refused on purpose.
TEST_F(Api, ConfigurePortRule) {
    const std::u16string conn = u16(m_dir / "p.conn");
    const std::pair<const char16_t*, int> rows[] = {
        {u"80", 0},  {u"443", 0},    {u"1024", 0}, {u"65535", 0}, {u"09999", 0},
        {u"79", -1}, {u"81", -1},    {u"442", -1}, {u"444", -1},  {u"1023", -1},
        {u"0", -1},  {u"65536", -1}, {u"8a", -1},  {u"", -1},     {u"99999999999", -1},
    };
    for (const auto& [port, result] : rows)
        EXPECT_EQ(
            KivRegPerformConfigWithArguments(conn.c_str(), false, u"u", u"pw", u"h", port, false),
            result)
            << test::u8(port);
}

struct RunRow {
    const char* what;
    std::u16string port;
    std::vector<std::pair<std::u16string_view, std::u16string>> extra;
    int result;
    std::vector<std::string> messages;
};

TEST_F(Api, RunChecksConnectionDataAndTimeouts) {
    const std::u16string closed = u16(test::closedPort());
    const RunRow rows[] = {
        // clang-format off
        {"port 65536 passes the check", u"65536", {}, -2, {"Start KIV Registration"}},
        {"port 65537", u"65537", {}, -1, {"Invalid HTTP port specified."}},
        {"port -1", u"-1", {}, -1, {"Invalid HTTP port specified."}},
        {"port 80a", u"80a", {}, -1, {"Invalid HTTP port specified."}},
        {"port in blanks", u" " + closed + u" ", {}, -2, {"Failed to open HTTP connection"}},
        {"timeouts", closed, {{CMDARG_CONNECT_TIMEOUT, u"0"}, {CMDARG_SEND_TIMEOUT, u"abc"},
                              {CMDARG_RECEIVE_TIMEOUT, u" -5 "}}, -2,
         {"HTTP open timeout     = infinte", "HTTP send timeout     = 420 sec",
          "HTTP response timeout = infinite"}},
        {"default timeouts", closed, {}, -2, {"HTTP open timeout     = 420 sec",
         "HTTP response timeout = 420 sec", "*** End KIV Registration ***"}},
        // clang-format on
    };
    for (const RunRow& row : rows) {
        SCOPED_TRACE(row.what);
        reset();
        ASSERT_EQ(KivRegSetXML(kDoc), 1);
        api::state().gArgs.addArg(CMDARG_HTTP_USER, u"u");
        api::state().gArgs.addArg(CMDARG_HTTP_HOST, u"127.0.0.1");
        api::state().gArgs.addArg(CMDARG_HTTP_PORT, row.port);
        for (const auto& [name, value] : row.extra) api::state().gArgs.addArg(name, value);
        EXPECT_EQ(KivRegSendReceiveData(), row.result);
        const std::string out = output();
        for (const std::string& m : row.messages) EXPECT_THAT(out, HasSubstr(m));
    }
}

// Text that cannot be converted, in the answer or in a host's output name,
// ends the run with the failure's type and message.
TEST_F(Api, ConversionFailuresInsideARunAreLoggedWithTypeAndMessage) {
    test::TestServer server([](test::Peer& p) {
        p.readRequest();
        p.send("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n\xFF");
    });
    ASSERT_EQ(KivRegSetXML(kDoc), 1);
    ASSERT_EQ(KivRegSetConnectData(u"127.0.0.1", u16(server.port()).c_str(), u"u", u"p"), 1);
    EXPECT_EQ(KivRegSendReceiveData(), -2);
    server.join();
    const std::string failed = "Failed to transfer data (type/msg): 4/CCConv::";
    EXPECT_THAT(output(), HasSubstr(failed + "Utf8ToUc: Function 'Utf8nToUcnCP' failed. RC=2\n"));

    reset();
    ASSERT_EQ(KivRegSetXML(kDoc), 1);
    api::state().gArgs.addSwitch(CMDARG_CHECK);
    api::state().gArgs.addArg(CMDARG_OUTPUT, u"body" + std::u16string(1, char16_t(0xD800)));
    EXPECT_EQ(KivRegSendReceiveData(), -1);
    EXPECT_THAT(output(), HasSubstr(failed + "toUTF8Str: Function 'UcnToUtf8nCP' failed. RC=1\n"));
}

TEST_F(Api, RunWithoutDocumentOrConnectionData) {
    EXPECT_EQ(KivRegSendReceiveData(), -1);
    ASSERT_EQ(KivRegSetConnectData(u"127.0.0.1", u"80", u"u", u"p"), 1);
    EXPECT_EQ(KivRegSendReceiveData(), -1);
    KivRegSetConnectFile(u"");  // refused, records nothing
    api::state().gArgs.addArg(CMDARG_CONNECT_FILE, u16(m_dir / "gone.conn"));
    EXPECT_EQ(KivRegSendReceiveData(), -1);
    const std::string out = output();
    EXPECT_THAT(out, HasSubstr("HTTP trace: false\n"));
    EXPECT_THAT(out, HasSubstr("Data trace: false\n"));
    EXPECT_THAT(out, HasSubstr("Incomplete HTTP connect information specified.\n"));
    EXPECT_THAT(out, HasSubstr("XML input data not set!\n"));
    EXPECT_THAT(out, Not(HasSubstr("Start KIV Registration")));
    // The connect file wins over -host and friends, even when it cannot be read.
    EXPECT_THAT(out,
                HasSubstr("Failed to read connect file: " + test::u8(u16(m_dir / "gone.conn"))));
}

TEST_F(Api, SymbolFileCodesAreHandedThrough) {
    ASSERT_EQ(KivRegSetXML(kDoc), 1);
    ASSERT_EQ(KivRegSetConnectData(u"127.0.0.1", u16(test::closedPort()).c_str(), u"u", u""), 1);
    test::writeFile(m_dir / "bad.sym", "ok=1\n   just words\n");
    api::state().gArgs.addArg(CMDARG_SYMBOL_FILE, u16(m_dir / "bad.sym"));
    EXPECT_EQ(KivRegSendReceiveData(), -2);
    EXPECT_TRUE(api::state().lastResultFromSymbols);
    api::state().gArgs.addArg(CMDARG_SYMBOL_FILE, u16(m_dir / "vanished.sym"));
    EXPECT_EQ(KivRegSendReceiveData(), -10);
    const std::string out = output();
    EXPECT_THAT(out, HasSubstr("Syntax error in symbol line: \"   just words\"."));
    EXPECT_THAT(out, HasSubstr("Failed to open symbol file \"" +
                               test::u8(u16(m_dir / "vanished.sym")) + "\"."));
    EXPECT_THAT(out, Not(HasSubstr("Start KIV Registration")));
}

// An entry an x86-64 host wrote, checked in: every host reads it alike, and
// writes the same entry under the same name with the same bytes but its time.
TEST(Spool, EntriesOfX86HostsAreReadAndWrittenAlikeOnEveryHost) {
    const std::string name = "201b7c32bfe5b7b5.kiv";
    const std::string x86 =
        test::readFile(std::filesystem::path(KIVREG_TEST_DATA_DIR) / "byteorder" / name);
    const std::string body = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<kiv>\u20ac</kiv>\n";
    api::SpoolEntry key;
    key.destination = {true, "registry.example.org", "50000", "/kiv/ds"};
    key.supplierName = "Supplier \u00e9\n";
    key.supplierVendor = "Vendor 100%";
    test::TempDir dir;
    test::LogCapture log;
    std::filesystem::create_directory(dir / "read");
    test::writeFile(dir / "read" / name, x86);
    api::Spool read(log.log(), (dir / "read").string(), 1 << 20);
    const std::vector<api::SpoolEntry> pending = read.pending(key.destination);
    ASSERT_EQ(pending.size(), 1u);
    EXPECT_TRUE(pending[0].sameKey(key));
    std::string readBody;
    ASSERT_TRUE(read.readBody(pending[0], readBody));
    EXPECT_EQ(readBody, body);

    api::Spool written(log.log(), (dir / "written").string(), 1 << 20);
    written.keep(key, body);
    const std::regex time("\ntime: [^\n]*");
    EXPECT_EQ(std::regex_replace(test::readFile(dir / "written" / name), time, ""),
              std::regex_replace(x86, time, ""));
}

}  // namespace
}  // namespace kivreg::test
