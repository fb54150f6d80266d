#include "support/CLog.h"

#include <locale.h>
#include <clocale>
#include <ctime>

#include "runtime/textconv.h"
#include "support/CGetStr.h"

namespace kivreg {

void appendUtf8Lenient(std::string& out, std::u16string_view text) {
    rt::utf16ToUtf8Lenient(text, out);
}

void writeText(std::FILE* stream, std::u16string_view text) {
    std::string bytes;
    appendUtf8Lenient(bytes, text);
    std::fwrite(bytes.data(), 1, bytes.size(), stream);
    std::fflush(stream);
}

CLog::CLog() = default;

CLog::~CLog() {
    close();
}

void CLog::setFileName(const std::u16string& fileName) {
    if (!m_fileName.empty() && m_fileName != fileName) close();
    // Naming the file that is already open keeps it: reopening would only
    // produce a second handle on the same file.
    if (m_fileName == fileName && m_file != nullptr) return;
    m_fileName = fileName;
    openFile();
}

void CLog::openFile() {
    if (!m_fileName.empty()) {
        std::string path;
        appendUtf8Lenient(path, m_fileName);
        m_file = std::fopen(path.c_str(), "ae");  // not inherited by what the host starts
        if (m_file == nullptr)
            writeText(stderr, u"*** Failed to open log file " + m_fileName + u" ***\n");
    }
}

void CLog::close() {
    if (m_file != nullptr) {
        std::fclose(m_file);
        m_file = nullptr;
    }
}

void CLog::flush() {
    if (m_holding) {
        appendUtf8Lenient(m_held, m_line);
        m_held += '\n';
        return;
    }
    std::string bytes;
    bytes.reserve(m_line.size() + 1);
    appendUtf8Lenient(bytes, m_line);
    bytes += '\n';
    write(bytes);
}

void CLog::releaseHeld(bool write) {
    m_holding = false;
    if (write && !m_held.empty()) this->write(m_held);
    m_held.clear();
    m_held.shrink_to_fit();
}

void CLog::write(const std::string& bytes) {
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    std::fflush(stdout);
    if (m_file != nullptr) {
        std::fwrite(bytes.data(), 1, bytes.size(), m_file);
        std::fflush(m_file);
    }
}

CLog& CLog::operator<<(char16_t c) {
    m_line += c;
    return *this;
}

CLog& CLog::operator<<(const char16_t* text) {
    return *this << (text ? std::u16string_view(text) : std::u16string_view());
}

CLog& CLog::operator<<(std::u16string_view text) {
    m_line.append(text);
    return *this;
}

CLog& CLog::operator<<(const char* utf8) {
    if (utf8 != nullptr) rt::utf8ToUtf16Lenient(utf8, m_line);
    return *this;
}

CLog& CLog::operator<<(bool value) {
    return *this << (value ? u"true" : u"false");
}

template <typename T>
CLog& CLog::appendNumber(T value) {
    return *this << CGetStr<T>::get(value);
}

CLog& CLog::operator<<(int value) {
    return appendNumber(value);
}
CLog& CLog::operator<<(unsigned long value) {
    return appendNumber(value);
}

CLog& endlog(CLog& log) {
    log.flush();
    log.clearBuffer();
    return log;
}

std::string logTime(std::time_t when) {
    // English day and month names whatever locale the host process selected.
    static locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr);
    std::tm local{};
    localtime_r(&when, &local);
    char buf[30];
    const size_t n = cLocale ? strftime_l(buf, sizeof buf, "%a %b %d %H:%M:%S %Y", &local, cLocale)
                             : std::strftime(buf, sizeof buf, "%a %b %d %H:%M:%S %Y", &local);
    return std::string(buf, n);
}

CLog& timestamp(CLog& log) {
    const std::string now = logTime(std::time(nullptr));
    if (now.empty()) return log;
    return log << now.c_str() << u' ';
}

}  // namespace kivreg
