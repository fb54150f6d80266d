// Posting a 100 MB body over loopback to a server that reads and discards it
// and answers 200: our request/response path next to curl posting the same
// bytes to the same server (curl with "Expect:" so that neither side waits
// for an interim answer).
// Run: build/kivreg_bench_http   (curl must be on PATH for BM_Curl)

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "http/HttpRequest.h"
#include "http/HttpResponse.h"
#include "http/IHttpStatus.h"
#include "http/IPConnection.h"
#include "http/URL.h"

namespace {

constexpr size_t kBodySize = 100u << 20;

// Accepts connections one after another, reads header and Content-Length
// bytes into a scratch buffer, answers 200 and closes.
class SinkServer {
public:
    SinkServer() {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(m_fd, 8) != 0 ||
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
            std::abort();
        m_port = std::to_string(ntohs(addr.sin_port));
        m_thread = std::thread([this] { run(); });
    }
    ~SinkServer() {
        m_stop = true;
        m_thread.join();
        close(m_fd);
    }
    const std::string& port() const { return m_port; }
    size_t lastBodyBytes() const { return m_lastBody; }

private:
    void run() {
        std::string buf(1u << 20, '\0');
        while (!m_stop) {
            pollfd p{m_fd, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            const int c = accept(m_fd, nullptr, nullptr);
            if (c < 0) continue;
            std::string head;
            size_t end;
            ssize_t n = 0;
            while ((end = head.find("\r\n\r\n")) == std::string::npos &&
                   (n = recv(c, buf.data(), buf.size(), 0)) > 0)
                head.append(buf.data(), static_cast<size_t>(n));
            size_t want = 0;
            for (const char* key : {"Content-Length:", "content-length:"})
                if (const size_t at = head.find(key);
                    at != std::string::npos && end != std::string::npos)
                    want = std::strtoull(head.c_str() + at + 15, nullptr, 10);
            size_t got = end == std::string::npos ? 0 : head.size() - end - 4;
            while (got < want && (n = recv(c, buf.data(), buf.size(), 0)) > 0)
                got += static_cast<size_t>(n);
            m_lastBody = got;
            const char answer[] =
                "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
            send(c, answer, sizeof answer - 1, MSG_NOSIGNAL);
            close(c);
        }
    }
    int m_fd;
    std::string m_port;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<size_t> m_lastBody{0};
};

SinkServer& server() {
    static SinkServer s;
    return s;
}

const std::string& body() {
    static const std::string b = [] {
        std::string s(kBodySize, '\0');
        for (size_t i = 0; i < s.size(); ++i)
            s[i] = "<kivinfo supplier_name=\"bench\">0123456789</kivinfo>\n"[i % 53];
        return s;
    }();
    return b;
}

void BM_KivregPost100MB(benchmark::State& state) {
    using namespace kivreg;
    const std::u16string url = u"http://127.0.0.1:" +
                               std::u16string(server().port().begin(), server().port().end()) +
                               u"/kiv/ds";
    for (auto _ : state) {
        state.PauseTiming();
        std::string bytes = body();  // the copy is not part of the transfer
        state.ResumeTiming();
        IPConnection conn;
        URL u;
        u.setHuser(u"u");
        u.setHpass(u"p");
        u.setUrl(url.c_str());
        HttpRequest req(conn, u);
        req.addHeaderline(u"dsxmlversion:2.0");
        req.setBody(std::move(bytes));
        int rc = 0;
        if (req.connect(&rc) <= 0) state.SkipWithError("connect");
        req.sendMessage(&rc);
        HttpResponse resp(&conn);
        resp.readHeaderSkip100(&rc);
        IHttpStatus* status = resp.getIHttpStatus();
        if (rc != 0 || status == nullptr || status->getCode() != 200) state.SkipWithError("no 200");
    }
    if (server().lastBodyBytes() != kBodySize) state.SkipWithError("server got a short body");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBodySize));
}
BENCHMARK(BM_KivregPost100MB)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Curl100MB(benchmark::State& state) {
    const std::string file = "/tmp/kivreg_bench_body_" + std::to_string(getpid());
    std::ofstream(file, std::ios::binary) << body();
    const std::string cmd =
        "curl -s -o /dev/null -H 'Expect:' -u u:p -H 'dsxmlversion:2.0' --data-binary @" + file +
        " http://127.0.0.1:" + server().port() + "/kiv/ds";
    for (auto _ : state)
        if (std::system(cmd.c_str()) != 0) state.SkipWithError("curl failed");
    if (server().lastBodyBytes() != kBodySize) state.SkipWithError("server got a short body");
    std::remove(file.c_str());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBodySize));
    state.SetLabel(cmd);
}
BENCHMARK(BM_Curl100MB)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
