#pragma once
// The transport trace: one process-wide object that writes time-stamped lines
// ("Sat Nov 14 11:04:22 2026 [host:pid]: message") to a file handed in by the
// caller and/or to standard output. A message is written
// when its level is at least the verbosity threshold and the trace is on; the
// transport writes everything at level 1, so the default threshold of 4 keeps
// it quiet until a caller lowers it.

#include <cstdio>
#include <string>
#include <string_view>

namespace kivreg {

class Trace {
public:
    using Verbosity = int;
    static constexpr Verbosity TRANSPORT_LEVEL = 1;
    static constexpr Verbosity QUIET = 4;  // the threshold that keeps the transport silent
    static constexpr size_t MAX_MESSAGE = 8192;

    static Trace& instance();

    // Whether messages are echoed to standard output.
    void setEcho(bool on) { m_echo = on; }

    // Writes to the caller's file from now on (threshold 0, trace on). The
    // caller keeps ownership; null stops the writing to a file.
    void setExternFP(std::FILE* fp);
    std::FILE* getExternFP() const { return m_fp; }

    Verbosity setVerbosity(Verbosity level);  // returns the previous threshold
    bool tOn(bool on);                        // returns the previous state

    bool wants(Verbosity level) const { return m_on && level >= m_verbosity; }

    // A message from a text (null prints "(NULL)") and further parts, each
    // after one blank: numbers in decimal, texts as they are.
    template <typename... Parts>
    void t(Verbosity level, const char* text, const Parts&... parts) {
        if (!wants(level)) return;
        std::string msg(text != nullptr ? text : "(NULL)");
        (append(msg, parts), ...);
        out(level, msg);
    }

    void out(Verbosity level, std::string_view message);

private:
    Trace();
    static void append(std::string& msg, long long number);
    static void append(std::string& msg, const char* text);
    static void append(std::string& msg, std::string_view text);
    static void append(std::string& msg, std::u16string_view text);

    int m_pid;
    bool m_on = true;
    bool m_echo = false;
    std::string m_hostName;
    Verbosity m_verbosity = QUIET;
    std::FILE* m_fp = nullptr;  // the caller's
};

// The process-wide kernel trace level: at 2 and above the connection layer
// also traces socket and TLS session details.
void setKernelTraceLevel(int level);
int getKernelTraceLevel();

}  // namespace kivreg
