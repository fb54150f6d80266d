// Every failed transfer ends with one line that says what failed, where and
// why, after the lines it has always logged: the real program against
// scripted servers on 127.0.0.1. A library host runs the same code.

#include <unistd.h>
#include <algorithm>
#include <functional>
#include <iostream>
#include <optional>

#include "E2eFixture.h"
#include "TestServer.h"

namespace kivreg::test {
namespace {

using Answer = std::function<void(Peer&)>;

Answer replying(const std::string& statusLine, const std::string& body,
                const std::string& fields = "") {
    const std::string length = "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
    return [=](Peer& p) {
        p.readRequest(), p.send("HTTP/1.1 " + statusLine + "\r\n" + fields + length + body);
    };
}

TlsServerConfig certified(const std::string& name) {
    return {testCert(name + ".pem"), testCert(name + ".key"), ""};
}

// Each expected line in this order, PORT standing for the server's port.
void expectInOrder(const std::string& out, const std::vector<std::string>& lines,
                   const std::string& port) {
    size_t at = 0;
    for (std::string line : lines) {
        if (const size_t p = line.find("PORT"); p != std::string::npos) line.replace(p, 4, port);
        const size_t found = out.find(line, at);
        ASSERT_NE(found, std::string::npos) << "missing after offset " << at << ": " << line << "\n"
                                            << out;
        at = found + line.size();
    }
}

// A document of 32 MiB: large enough that the server can stop reading it midway.
std::string largeDocument() {
    std::string props;
    for (int i = 0; i < 4; ++i)
        props += "<property name=\"P" + std::to_string(i) + "\"><value>" +
                 std::string(8u << 20, 'x') + "</value></property>";
    std::string doc = kDocument;
    doc.insert(doc.find("<reference"), props);
    return doc;
}

class Failure : public E2e {};

TEST_F(Failure, EachFailureEndsWithWhatWhereAndWhy) {
    const std::string opened = "HTTP open status: false - NI RC=0";
    const std::string unopened = "Failed to open HTTP connection!";
    const std::string failed = "HTTP response: Failure. HTTP status code: ";
    const std::string verifyFailed = "TLS: certificate verify failed for 127.0.0.1 port PORT: ";
    const std::string byTestCa = ", issuer CN=kivreg test CA, valid from ";
    std::filesystem::copy_file(testCert("ca.pem"), m_dir / "kivreg_trust.pem");
    std::filesystem::create_directory(m_dir / "no-trust");
    const std::string large = writeDoc("large.xml", largeDocument());
    // The name is looked up where no query can leave the machine.
    const bool canIsolate = run({"/usr/bin/unshare", "-rn", "/bin/true"}).exitCode == 0;

    struct Row {
        const char* name;
        Answer answer;  // null: nothing listens
        std::optional<TlsServerConfig> tls;
        int exitCode;
        std::vector<std::string> logged;
        const char* reason;         // what the status file shows
        std::string document = "";  // instead of doc.xml
        bool unresolvable = false;  // with -host no-such-host.invalid, in a network of its own
        std::map<std::string, std::string> env = {};
    };
    const Row rows[] = {
        // clang-format off
        {"name that does not resolve", nullptr, {}, 2,
         {opened, unopened, "Could not resolve host no-such-host.invalid: "}, "resolve", {}, true},
        {"closed port", nullptr, {}, 2,
         {opened, unopened, "Could not connect to 127.0.0.1 port PORT: Connection refused"},
         "connect"},
        {"self-signed certificate", [](Peer&) {}, certified("rogue"), 2,
         {opened, unopened, verifyFailed + "self-signed certificate (subject CN=localhost, "
                                           "issuer CN=localhost, valid from "}, "tls"},
        {"expired certificate", [](Peer&) {}, certified("expired"), 2,
         {opened, unopened, verifyFailed + "certificate has expired (subject CN=localhost" + byTestCa},
         "tls"},
        {"certificate for another name", [](Peer&) {}, certified("wrongname"), 2,
         {opened, unopened,
          "TLS: host name mismatch for 127.0.0.1 port PORT: the certificate is for wrong.example"},
         "tls"},
        {"certificate by an unknown CA", [](Peer&) {}, certified("server"), 2,
         {opened, unopened, verifyFailed + "unable to get local issuer certificate (subject "
                                           "CN=localhost" + byTestCa}, "tls", {}, false,
         {{"SECUDIR", path("no-trust")}}},
        // SECUDIR unset: the trust file is read from the working directory.
        {"trusted certificate", replying("200 OK", "ok"), certified("server"), 0,
         {"HTTP response: Success. HTTP status code: 200"}, ""},
        {"reset mid-body", [](Peer& p) { p.readRequest(1u << 20), p.abort(); }, {}, 1,
         {"HTTP data sending failed. NI RC=-4", "Sending to 127.0.0.1 port PORT failed after ",
          " of 32.0 MiB: Connection reset by peer"}, "send", large},
        {"closed without an answer", [](Peer& p) { p.readRequest(); }, {}, 1,
         {failed + "-1", "No answer from 127.0.0.1 port PORT: the connection was closed"},
         "receive"},
        {"malformed answer", replying("200 OK", "zz\r\n", "Transfer-Encoding: chunked\r\n"), {}, 1,
         {failed + "-1", "Malformed answer from 127.0.0.1 port PORT: bad chunk size line \"zz\""},
         "receive"},
        {"201: stored, yet only 200 is success", replying("201 Created", ""), {}, 1,
         {"Return code: 201 --- Return message: (Created)", failed + "201"}, "http_status"},
        {"308 with Location",
         replying("308 Permanent Redirect", "moved", "Location: https://new.example/kiv/ds\r\n"),
         {}, 1,
         {"Return code: 308 --- Return message: (Permanent Redirect)", failed + "308",
          "HTTP status 308 (Permanent Redirect) from 127.0.0.1 port PORT: Location "
          "https://new.example/kiv/ds", "Answer body: moved"}, "http_status"},
        {"429", replying("429 Too Many Requests", "slow down:\n\tline two\x01\r\n"), {}, 1,
         {"Return code: 429 --- Return message: (Too Many Requests)", failed + "429",
          "HTTP status 429 (Too Many Requests) from 127.0.0.1 port PORT",
          "Answer body: slow down:\\n\\tline two\\x01\\r\\n"}, "http_status"},
        {"599 without a reason phrase", replying("599 ", std::string(600, 'b')), {}, 1,
         {"Return code: 599 --- Return message: ()", failed + "599",
          "HTTP status 599 () from 127.0.0.1 port PORT",
          "Answer body: " + std::string(512, 'b') + "..."}, "http_status"},
        // clang-format on
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.unresolvable && !canIsolate) {
            std::cout << "skipped \"" << row.name << "\": unshare -rn is not permitted here\n";
            continue;
        }
        std::optional<TestServer> server;
        if (row.answer) server.emplace(row.answer, row.tls);
        const std::string port = server ? server->port() : closedPort();
        const std::string status = path("kivreg.prom");
        std::vector<std::string> args = connect(port, {"--status-file", status});
        if (!row.document.empty()) args[1] = row.document;
        if (row.tls) args.push_back("-usehttps");
        if (row.unresolvable) {
            *std::find(args.begin(), args.end(), "127.0.0.1") = "no-such-host.invalid";
            args.insert(args.begin(), kProgram);
            args = emulated(args);
            args.insert(args.begin(), {"/usr/bin/unshare", "-rn"});
        }
        const RunOptions options{.cwd = m_dir.path(), .env = row.env};
        const RunResult r = row.unresolvable ? run(args, options) : kivreg(args, options);
        EXPECT_EQ(r.exitCode, row.exitCode) << r.out;
        expectInOrder(r.out, row.logged, port);
        EXPECT_EQ(failureReason(checkedMetrics(status)), row.reason);
        if (server) server->join();
    }
}

// The read timeout cannot be set below a minute, so this one waits that long.
TEST_F(Failure, AServerThatNeverAnswersTimesOut) {
    std::string port;
    const int listener = listenOnLoopback(port);  // connections queue, none is taken
    const std::unique_ptr<Child> child = startKivreg(connect(port, {"-receivetimeout", "1"}));
    EXPECT_EQ(child->wait(std::chrono::seconds(90)), 1) << child->output();
    ::close(listener);
    expectInOrder(child->output(),
                  {"HTTP send successful.", "HTTP response: Failure. HTTP status code: -1",
                   "No answer from 127.0.0.1 port PORT: timed out after 60 s"},
                  port);
}

}  // namespace
}  // namespace kivreg::test
