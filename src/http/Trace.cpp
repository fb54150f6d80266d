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
}

void Trace::setExternFP(std::FILE* fp) {
    m_fp = fp;
    if (fp != nullptr) {
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
    if (m_fp != nullptr) {
        std::fwrite(line.data(), 1, line.size(), m_fp);
        std::fflush(m_fp);
    }
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
