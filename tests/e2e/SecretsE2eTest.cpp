// Passwords stay out of the process list, and come from a file or standard
// input when asked.

#include <unistd.h>

#include "E2eFixture.h"

namespace kivreg::test {
namespace {

using Secrets = E2e;

TEST_F(Secrets, PasswordsAreBlankedInTheProcessListWhileARunWaits) {
    if (!testEmulator().empty())
        GTEST_SKIP() << "under an emulator /proc/PID/cmdline shows the emulator's copy of the "
                        "arguments, which the program cannot blank";
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
        // As every user of the host reads it.
        const std::string cmdline = readFile("/proc/" + std::to_string(child->pid()) + "/cmdline");
        EXPECT_THAT(cmdline, Not(HasSubstr("s3cret-pw"))) << c.kept;
        EXPECT_THAT(cmdline, Not(HasSubstr("Pr0xy-pw"))) << c.kept;
        EXPECT_THAT(cmdline, HasSubstr(c.kept));
    }
    ::close(listener);
}

// The server takes only the right password, so exit status 0 says it came
// from the file; -pass is wrong throughout.
TEST_F(Secrets, PasswordFileRulesOverPassForRegistrationAndConfigure) {
    DirServer server(m_dir / "server", ServerOptions{});
    writeFile(m_dir / "pw", "s3cret-pw\nthe first line alone counts\n");
    writeFile(m_dir / "pw-crlf", "s3cret-pw\r\n");
    for (const auto& [file, input] : std::vector<std::pair<std::string, std::string>>{
             {path("pw"), ""}, {path("pw-crlf"), ""}, {"-", "s3cret-pw\n"}}) {
        const RunResult r =
            kivreg(connect(server, {"-pass", "wrong", "--password-file", file}), {.input = input});
        EXPECT_EQ(r.exitCode, 0) << file << "\n" << r.out;
    }
    RunResult r =
        kivreg({"-configure", path("conn"), "-user", "supplier", "-pass", "wrong", "-host",
                "127.0.0.1", "-port", server.portText(), "--password-file", path("pw")});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    r = kivreg({"-file", path("doc.xml"), "-connectfile", path("conn")});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    // The document on standard input after the password line.
    r = kivreg({"-stdin", "-user", "supplier", "-host", "127.0.0.1", "-port", server.portText(),
                "--password-file", "-"},
               {.input = "s3cret-pw\n" + std::string(kDocument)});
    EXPECT_EQ(r.exitCode, 0) << r.out;

    writeFile(m_dir / "pw-bad", "\xff\xfe\n");
    writeFile(m_dir / "pw-long", std::string(5000, 'x'));
    for (const auto& [file, why] : std::vector<std::pair<std::string, std::string>>{
             {path("missing"), "No such file or directory"},
             {path("pw-bad"), "its first line is not valid UTF-8"},
             {path("pw-long"), "its first line is too long"}}) {
        r = kivreg(connect(server, {"--password-file", file}));
        EXPECT_EQ(r.exitCode, 1) << file;
        EXPECT_THAT(r.out, HasSubstr("Cannot read the password file " + file + ": " + why));
    }
}

}  // namespace
}  // namespace kivreg::test
