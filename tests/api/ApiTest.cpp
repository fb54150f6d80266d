// The exported functions called in-process: what they record, log and return.

#include <gmock/gmock.h>

#include "api/ApiState.h"
#include "api/Vocabulary.h"
#include "kivreg.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::u16;
using testing::HasSubstr;
using testing::Not;

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
        {"blanks around the port", u" " + closed + u" ", {}, -2, {"Failed to open HTTP connection!"}},
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

}  // namespace
}  // namespace kivreg
