// Passwords stay out of the process list, and come from a file or standard
// input when asked.

#include <unistd.h>

#include <filesystem>

#include "E2eFixture.h"
#include "http/Base64.h"

namespace kivreg::test {
namespace {

using Secrets = E2e;

RunOptions withInput(std::string input) {
    RunOptions options;
    options.input = std::move(input);
    return options;
}

// The process's command line as other users of the host read it.
std::string commandLine(pid_t pid) {
    return readFile("/proc/" + std::to_string(pid) + "/cmdline");
}

TEST_F(Secrets, PasswordsAreBlankedInTheProcessListWhileARunWaits) {
    std::string silent;
    const int listener = listenOnLoopback(silent);  // takes the request, never answers
    ASSERT_GE(listener, 0);
    const std::string proxy = "pu:Pr0xy-pw@127.0.0.1:" + silent;
    struct Case {
        std::vector<std::string> args;
        std::string kept;  // what stays readable around the password
    };
    for (const Case& c : std::vector<Case>{
             {connect(silent), "-pass"},
             {connect(closedPort(), {"--proxy", "http://" + proxy}), "@127.0.0.1:" + silent},
             {connect(closedPort(), {"--proxy=" + proxy}), "--proxy=pu:"},
         }) {
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"-receivetimeout", "20"});
        const std::unique_ptr<Child> child = startKivreg(args);
        ASSERT_TRUE(child->expect("HTTP send successful.")) << child->output();
        const std::string cmdline = commandLine(child->pid());
        EXPECT_THAT(cmdline, Not(HasSubstr("s3cret-pw"))) << c.kept;
        EXPECT_THAT(cmdline, Not(HasSubstr("Pr0xy-pw"))) << c.kept;
        EXPECT_THAT(cmdline, HasSubstr(c.kept));
    }
    ::close(listener);
}

TEST_F(Secrets, PasswordFileRulesOverPassForRegistrationAndConfigure) {
    DirServer server(m_dir / "server", ServerOptions{});
    writeFile(m_dir / "pw", "s3cret-pw\nthe first line alone counts\n");
    writeFile(m_dir / "pw-crlf", "s3cret-pw\r\n");
    struct Case {
        std::string file, input;
    };
    int delivered = 0;
    for (const Case& c : std::vector<Case>{
             {path("pw"), ""},
             {path("pw-crlf"), ""},
             {"-", "s3cret-pw\n"},
         }) {
        // -pass is wrong: the file rules over it.
        RunResult r = kivreg(connect(server, {"-pass", "wrong", "--password-file", c.file}),
                             withInput(c.input));
        EXPECT_EQ(r.exitCode, 0) << c.file << "\n" << r.out;
        ++delivered;

        const std::string conn = path("conn");
        std::filesystem::remove(conn);
        r = kivreg({"-configure", conn, "-user", "supplier", "-pass", "wrong", "-host", "127.0.0.1",
                    "-port", server.portText(), "--password-file", c.file},
                   withInput(c.input));
        ASSERT_EQ(r.exitCode, 0) << c.file << "\n" << r.out;
        r = kivreg({"-file", path("doc.xml"), "-connectfile", conn});
        EXPECT_EQ(r.exitCode, 0) << c.file << "\n" << r.out;
        ++delivered;
    }
    EXPECT_EQ(server.stored().size(), static_cast<size_t>(delivered));

    // With a document on standard input after the password line.
    RunResult r = kivreg({"-stdin", "-user", "supplier", "-host", "127.0.0.1", "-port",
                          server.portText(), "--password-file", "-"},
                         withInput("s3cret-pw\n" + std::string(kDocument)));
    EXPECT_EQ(r.exitCode, 0) << r.out;

    std::filesystem::create_directory(m_dir / "dir");
    writeFile(m_dir / "pw-bad", "\xff\xfe\n");
    writeFile(m_dir / "pw-long", std::string(5000, 'x'));
    for (const auto& [file, why] : std::vector<std::pair<std::string, std::string>>{
             {path("missing"), "No such file or directory"},
             {path("dir"), "Is a directory"},
             {path("pw-bad"), "its first line is not valid UTF-8"},
             {path("pw-long"), "its first line is too long"},
         }) {
        r = kivreg(connect(server, {"--password-file", file}));
        EXPECT_EQ(r.exitCode, 1) << file;
        EXPECT_THAT(r.out, HasSubstr("Cannot read the password file " + file + ": " + why));
    }
}

// What a run leaves behind: the log, the HTTP and data traces, the spool and
// the status file. None holds the password, in clear or as Basic credentials.
TEST_F(Secrets, NothingARunWritesHoldsThePassword) {
    DirServer server(m_dir / "server", ServerOptions{.status = 503});
    const RunResult r = kivreg(
        connect(server, {"-httptrace", "-datatrace", "-logfile", path("kivreg.log"), "--spool",
                         path("spool"), "--status-file", path("kivreg.prom"), "--proxy", ""}));
    ASSERT_EQ(r.exitCode, 1) << r.out;
    ASSERT_TRUE(std::filesystem::exists(m_dir / "kivreg_http_trace.log"));
    ASSERT_TRUE(std::filesystem::exists(m_dir / "kivreg.prom"));
    const std::string basic = Base64::encode(std::string_view("supplier:s3cret-pw"));
    int files = 0;
    for (const auto& e : std::filesystem::recursive_directory_iterator(m_dir.path())) {
        if (!e.is_regular_file() || e.path().parent_path() == m_dir / "server") continue;
        const std::string bytes = readFile(e.path());
        EXPECT_THAT(bytes, Not(HasSubstr("s3cret-pw"))) << e.path();
        EXPECT_THAT(bytes, Not(HasSubstr(basic))) << e.path();
        ++files;
    }
    EXPECT_GE(files, 5);  // the document, log, trace, spool entry and status file at least
    EXPECT_THAT(r.out, Not(HasSubstr("s3cret-pw")));
}

}  // namespace
}  // namespace kivreg::test
