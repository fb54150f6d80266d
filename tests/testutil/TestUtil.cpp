#include "testutil/TestUtil.h"

#include <unistd.h>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "runtime/textconv.h"

namespace kivreg::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kivreg-test-XXXXXX").string();
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

LogCapture::LogCapture() : m_log(std::make_unique<CLog>(u16(m_dir / "test.log"))) {}

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

}  // namespace kivreg::test
