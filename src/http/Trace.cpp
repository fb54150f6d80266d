#include "http/Trace.h"

#include <unistd.h>
#include <ctime>

#include "runtime/NetSocket.h"
#include "runtime/textconv.h"

namespace kivreg {

namespace {
int g_kernelTraceLevel = 0;
}

Trace& Trace::instance() {
    static Trace trace;
    return trace;
}

Trace::Trace() : m_pid(static_cast<int>(getpid())) {
    if (rt::netMyHostName(m_hostName) != rt::NET_OK) m_hostName.clear();
    if (m_hostName.size() > 511) m_hostName.resize(511);
}

void Trace::setFileName(const char16_t* name) {
    m_fileName = name != nullptr ? std::u16string(name).substr(0, MAX_FILE_NAME) : std::u16string();
}

void Trace::setLogPath(const char16_t* path) {
    if (path == nullptr) {
        m_logPath.clear();
        return;
    }
    const std::u16string_view p(path);
    if (p == u"-") {
        m_echo = !m_echo;
        return;
    }
    m_logPath = p.substr(0, MAX_LOG_PATH - 1);
    if (!m_logPath.empty() && m_logPath.back() != u'/') m_logPath += u'/';
}

void Trace::setExternFP(std::FILE* fp) {
    if (m_fp != nullptr && !m_external) std::fclose(m_fp);
    m_fp = fp;
    m_external = fp != nullptr;
    if (m_external) {
        m_verbosity = 0;
        m_on = true;
    }
}

Trace::Verbosity Trace::setVerbosity(Verbosity level) {
    const Verbosity previous = m_verbosity;
    m_verbosity = level;
    return previous;
}

bool Trace::tOn(bool on) {
    const bool previous = m_on;
    m_on = on;
    return previous;
}

bool Trace::makeLogFileName(std::string& name) const {
    if (m_logPath.empty() || m_fileName.empty()) return false;
    name.clear();
    rt::utf16ToUtf8Lenient(m_logPath, name);
    rt::utf16ToUtf8Lenient(m_fileName, name);
    return true;
}

void Trace::out(Verbosity level, std::string_view message) {
    if (!wants(level)) return;
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32] = {};
    asctime_r(&utc, stamp);
    std::string line(stamp);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    line += " [";
    line += m_hostName;
    line += ':';
    line += std::to_string(m_pid);
    line += "]: ";
    line += message.substr(0, MAX_MESSAGE - 1);
    line += '\n';

    if (m_echo) {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fflush(stdout);
    }
    if (m_external) {
        if (m_fp == nullptr) return;
        std::fwrite(line.data(), 1, line.size(), m_fp);
        std::fflush(m_fp);
        return;
    }
    // The own file is opened per line so that other processes and a crash see
    // every line that was written.
    std::string name;
    if (!makeLogFileName(name)) return;
    std::FILE* fp = std::fopen(name.c_str(), "a+");
    if (fp == nullptr) return;
    std::fwrite(line.data(), 1, line.size(), fp);
    std::fclose(fp);
}

void Trace::append(std::string& msg, long long number) {
    msg += ' ';
    msg += std::to_string(number);
}

void Trace::append(std::string& msg, const char* text) {
    append(msg, std::string_view(text ? text : "(NULL)"));
}

void Trace::append(std::string& msg, std::string_view text) {
    msg += ' ';
    msg += text;
}

void Trace::append(std::string& msg, std::u16string_view text) {
    msg += ' ';
    rt::utf16ToUtf8Lenient(text, msg);
}

void setKernelTraceLevel(int level) {
    g_kernelTraceLevel = level;
}
int getKernelTraceLevel() {
    return g_kernelTraceLevel;
}

}  // namespace kivreg
