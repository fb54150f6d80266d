#include "testutil/TestUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "runtime/textconv.h"

namespace kivreg::test {

TempDir::TempDir(const std::filesystem::path& parent) {
    std::string pattern = (parent / "kivreg-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::u16string u16(const std::string& utf8) {
    std::u16string out;
    rt::utf8ToUtf16Lenient(utf8, out);
    return out;
}

std::string u8(const std::u16string& text) {
    std::string out;
    rt::utf16ToUtf8Lenient(text, out);
    return out;
}

std::u16string u16(const std::filesystem::path& path) {
    return u16(path.string());
}

LogCapture::LogCapture() : m_log(std::make_unique<CLog>()) {
    m_log->setFileName(u16(m_dir / "test.log"));
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> out;
    std::istringstream in(readFile(m_dir / "test.log"));
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::vector<std::string> LogCapture::messages() const {
    static const std::regex stamp(R"(^[A-Z][a-z]{2} [A-Z][a-z]{2} \d\d \d\d:\d\d:\d\d \d{4} )");
    std::vector<std::string> out;
    for (const std::string& line : lines()) out.push_back(std::regex_replace(line, stamp, ""));
    return out;
}

std::string LogCapture::text() const {
    std::string out;
    for (const std::string& m : messages()) {
        if (!out.empty()) out += '\n';
        out += m;
    }
    return out;
}

int listenOnLoopback(std::string& port, int backlog) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(fd, backlog) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        throw std::runtime_error("cannot listen on 127.0.0.1");
    port = std::to_string(ntohs(addr.sin_port));
    return fd;
}

std::string closedPort() {
    std::string port;
    ::close(listenOnLoopback(port));
    return port;
}

StdinClosed::StdinClosed() : m_saved(::dup(0)) {
    ::close(0);
}

StdinClosed::~StdinClosed() {
    if (m_saved < 0) return;
    ::dup2(m_saved, 0);
    ::close(m_saved);
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : m_name(name) {
    if (const char* old = std::getenv(name)) m_saved = old;
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
    m_saved ? setenv(m_name.c_str(), m_saved->c_str(), 1) : unsetenv(m_name.c_str());
}

std::string testCert(const std::string& name) {
    static TempDir dir;
    static const bool made = [] {
        const std::string cmd = std::string("bash '") + KIVREG_SOURCE_DIR +
                                "/tests/testutil/make_test_certs.sh' '" + dir.path().string() +
                                "' >/dev/null 2>&1";
        if (std::system(cmd.c_str()) != 0) throw std::runtime_error("make_test_certs.sh failed");
        return true;
    }();
    return made ? (dir / name).string() : std::string();
}

std::string testEmulator() {
    const char* emulator = std::getenv("KIVREG_TEST_EMULATOR");
    return emulator ? emulator : "";
}

}  // namespace kivreg::test
