// Redirects: followed with the credentials only on the configured host (307
// and 308, at most five), never elsewhere.

#include <filesystem>

#include "E2eFixture.h"

namespace kivreg::test {
namespace {

class Redirects : public E2e {
protected:
    void SetUp() override {
        std::filesystem::copy_file(testCert("ca.pem"), m_dir / "kivreg_trust.pem");
    }
    std::unique_ptr<DirServer> server(const std::string& name, const ServerOptions& options) {
        std::filesystem::create_directory(m_dir / name);
        return std::make_unique<DirServer>(m_dir / name, options);
    }
    RunResult register_(const DirServer& server, bool https, std::vector<std::string> more = {}) {
        std::vector<std::string> args = connect(server, std::move(more));
        if (https) args.push_back("-usehttps");
        RunOptions options;
        options.env = {{"SECUDIR", m_dir.path().string()}};
        return kivreg(args, options);
    }
};

const std::string kAsked = "POST /kiv/ds with-credentials\n";

TEST_F(Redirects, SameHost307And308AreFollowedWithTheCredentials) {
    const auto tls = server("tls", {.https = true});
    const std::string tlsUrl = "https://127.0.0.1:" + tls->portText() + "/kiv/ds";
    struct Case {
        ServerOptions first;
        std::string moved;          // the logged destination, the first server's port put in
        const DirServer* taker;     // null: the first server takes it
        std::string firstRequests;  // what the first server saw
    };
    for (const Case& c : std::vector<Case>{
             {{.path = "/v2/kiv/ds", .redirect = "308=/v2/kiv/ds"},
              "http://127.0.0.1:PORT/v2/kiv/ds (HTTP status 308)",
              nullptr,
              kAsked + "POST /v2/kiv/ds with-credentials\n"},
             {{.path = "/none", .redirect = "307=" + tlsUrl},
              tlsUrl + " (HTTP status 307)",
              tls.get(),
              kAsked},
         }) {
        const auto first = server("first-" + std::to_string(c.firstRequests.size()), c.first);
        const RunResult r = register_(*first, false);
        EXPECT_EQ(r.exitCode, 0) << r.out;
        std::string moved = c.moved;
        if (const size_t at = moved.find("PORT"); at != std::string::npos)
            moved.replace(at, 4, first->portText());
        EXPECT_EQ(occurrences(r.out, "Redirected to " + moved + "\n"), 1u) << r.out;
        EXPECT_EQ(first->requests(), c.firstRequests);
        EXPECT_EQ((c.taker ? c.taker : first.get())->stored().size(), 1u);
    }
    EXPECT_EQ(tls->requests(), kAsked);
}

TEST_F(Redirects, OthersAreNotFollowedAndNothingGoesElsewhere) {
    const auto plain = server("plain", {});
    const std::string elsewhere = "http://localhost:" + plain->portText() + "/kiv/ds";
    const std::string downgrade = "http://127.0.0.1:" + plain->portText() + "/kiv/ds";
    struct Case {
        ServerOptions first;
        std::string line;  // the first server's port put in for PORT
    };
    for (const Case& c : std::vector<Case>{
             {{.path = "/none", .redirect = "308=" + elsewhere},
              "The directory points to " + elsewhere +
                  " (HTTP status 308): the connect data should name it."},
             {{.path = "/v2/kiv/ds", .redirect = "302=/v2/kiv/ds"},
              "The directory points to http://127.0.0.1:PORT/v2/kiv/ds (HTTP status 302): "
              "the connect data should name it."},
             {{.https = true, .path = "/none", .redirect = "308=" + downgrade},
              "The directory points to " + downgrade +
                  " (HTTP status 308): the connect data should name it."},
             {{.path = "/none", .redirect = "301=ftp://127.0.0.1/kiv/ds"},
              "The directory points to ftp://127.0.0.1/kiv/ds (HTTP status 301), which is not "
              "followed."},
         }) {
        const auto first =
            server("first-" + c.first.redirect.substr(0, 3) + (c.first.https ? "s" : ""), c.first);
        const RunResult r = register_(*first, c.first.https);
        EXPECT_EQ(r.exitCode, 1) << r.out;
        std::string line = c.line;
        if (const size_t at = line.find("PORT"); at != std::string::npos)
            line.replace(at, 4, first->portText());
        EXPECT_THAT(r.out, HasSubstr(line + "\n"));
        EXPECT_THAT(r.out, HasSubstr("HTTP response: Failure. HTTP status code: "));
        EXPECT_THAT(r.out, Not(HasSubstr("Redirected to")));
        EXPECT_EQ(first->requests(), kAsked) << line;
    }
    EXPECT_EQ(plain->requests(), "");  // no request, so no credentials either

    // A loop: five redirects followed, the sixth not.
    const auto loop = server("loop", {.path = "/none", .redirect = "308=/kiv/loop"});
    const RunResult r = register_(*loop, false);
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_EQ(occurrences(r.out, "Redirected to http://127.0.0.1:" + loop->portText() +
                                     "/kiv/loop (HTTP status 308)\n"),
              5u)
        << r.out;
    EXPECT_THAT(r.out, HasSubstr("Too many redirects: "));
    EXPECT_EQ(occurrences(loop->requests(), "\n"), 6u) << loop->requests();
}

TEST_F(Redirects, TheSpoolKeepsTheConfiguredDestination) {
    const auto moved =
        server("moved", {.status = 503, .path = "/v2/kiv/ds", .redirect = "308=/v2/kiv/ds"});
    const RunResult r = register_(*moved, false, {"--spool", path("spool")});
    ASSERT_EQ(r.exitCode, 1) << r.out;
    ASSERT_THAT(r.out, HasSubstr("Redirected to "));
    int entries = 0;
    for (const auto& e : std::filesystem::directory_iterator(m_dir / "spool")) {
        if (e.path().extension() != ".kiv") continue;
        const std::string entry = readFile(e.path());
        EXPECT_THAT(entry, HasSubstr("\nport: " + moved->portText() + "\npath: /kiv/ds\n"));
        ++entries;
    }
    EXPECT_EQ(entries, 1);
}

}  // namespace
}  // namespace kivreg::test
