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
    RunResult registerWith(const DirServer& server, std::vector<std::string> more = {}) {
        return kivreg(connect(server, std::move(more)), {.env = {{"SECUDIR", m_dir.path()}}});
    }
};

const std::string kAsked = "POST /kiv/ds with-credentials\n";

TEST_F(Redirects, SameHost307And308AreFollowedWithTheCredentials) {
    // The server takes only the right credentials: exit status 0 says they came along.
    const auto moved = server("moved", {.path = "/v2/kiv/ds", .redirect = "308=/v2/kiv/ds"});
    RunResult r = registerWith(*moved);
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("Redirected to http://127.0.0.1:" + moved->portText() +
                                 "/v2/kiv/ds (HTTP status 308)\n"));
    EXPECT_EQ(moved->requests(), kAsked + "POST /v2/kiv/ds with-credentials\n");

    const auto tls = server("tls", {.https = true});
    const std::string tlsUrl = "https://127.0.0.1:" + tls->portText() + "/kiv/ds";
    r = registerWith(*server("upgrade", {.path = "/none", .redirect = "307=" + tlsUrl}));
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("Redirected to " + tlsUrl + " (HTTP status 307)\n"));
    EXPECT_EQ(tls->requests(), kAsked);

    // A registration the moved place cannot take is kept for the configured one.
    const auto busy =
        server("busy", {.status = 503, .path = "/v2/kiv/ds", .redirect = "308=/v2/kiv/ds"});
    r = registerWith(*busy, {"--spool", path("spool")});
    ASSERT_EQ(r.exitCode, 1) << r.out;
    const std::vector<std::string> kept = filesIn(m_dir / "spool", ".kiv");
    ASSERT_EQ(kept.size(), 1u) << r.out;
    EXPECT_THAT(readFile(kept[0]), HasSubstr("\nport: " + busy->portText() + "\npath: /kiv/ds\n"));
}

TEST_F(Redirects, OthersAreNotFollowedAndNothingGoesElsewhere) {
    const auto plain = server("plain", {});
    const std::string elsewhere = "http://localhost:" + plain->portText() + "/kiv/ds";
    const std::string downgrade = "http://127.0.0.1:" + plain->portText() + "/kiv/ds";
    const std::string nameIt = "): the connect data should name it.\n";
    int n = 0;
    for (const auto& [options, line] : std::vector<std::pair<ServerOptions, std::string>>{
             {{.path = "/none", .redirect = "308=" + elsewhere}, elsewhere + " (HTTP status 308"},
             {{.path = "/v2/kiv/ds", .redirect = "302=/v2/kiv/ds"}, "/v2/kiv/ds (HTTP status 302"},
             {{.https = true, .path = "/none", .redirect = "308=" + downgrade},
              downgrade + " (HTTP status 308"},
         }) {
        const auto first = server("first" + std::to_string(++n), options);
        const RunResult r =
            registerWith(*first, options.https ? std::vector<std::string>{"-usehttps"}
                                               : std::vector<std::string>{});
        EXPECT_EQ(r.exitCode, 1) << r.out;
        EXPECT_THAT(r.out, HasSubstr(line + nameIt));
        EXPECT_EQ(first->requests(), kAsked) << line;
    }
    EXPECT_EQ(plain->requests(), "");  // no request, so no credentials either

    // A loop: five redirects followed, the sixth not.
    const auto loop = server("loop", {.path = "/none", .redirect = "308=/kiv/loop"});
    const RunResult r = registerWith(*loop);
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_EQ(occurrences(r.out, "Redirected to http://127.0.0.1:" + loop->portText() +
                                     "/kiv/loop (HTTP status 308)\n"),
              5u);
    EXPECT_THAT(r.out, HasSubstr("Too many redirects: "));
    EXPECT_EQ(occurrences(loop->requests(), "\n"), 6u) << loop->requests();
}

}  // namespace
}  // namespace kivreg::test
