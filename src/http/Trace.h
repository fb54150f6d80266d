#pragma once
// The transport trace: one process-wide object that writes time-stamped lines
// ("Sat Nov 14 11:04:22 2026 [host:pid]: message") to a trace file, to a file
// handed in by the caller, and/or to standard output. A message is written
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
    static constexpr size_t MAX_FILE_NAME = 256;
    static constexpr size_t MAX_LOG_PATH = 4096;
    static constexpr size_t MAX_MESSAGE = 8192;

    static Trace& instance();

    // Null or empty switches the own file off.
    void setFileName(const char16_t* name);
    // Null clears the path; "-" toggles the echo to standard output instead of
    // setting a path; anything else becomes the directory, ending in "/".
    void setLogPath(const char16_t* path);

    // Writes to the caller's file from now on (threshold 0, trace on). The
    // caller keeps ownership; null goes back to the own file.
    void setExternFP(std::FILE* fp);
    std::FILE* getExternFP() const { return m_external ? m_fp : nullptr; }

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
    // Path + file name as UTF-8; false when either part is empty.
    bool makeLogFileName(std::string& name) const;
    static void append(std::string& msg, long long number);
    static void append(std::string& msg, const char* text);
    static void append(std::string& msg, std::string_view text);
    static void append(std::string& msg, std::u16string_view text);

    std::u16string m_fileName;
    std::u16string m_logPath;
    int m_pid;
    bool m_on = true;
    bool m_echo = false;
    std::string m_hostName;
    Verbosity m_verbosity = 4;
    std::FILE* m_fp = nullptr;
    bool m_external = false;
};

// The process-wide kernel trace level: at 2 and above the connection layer
// also traces socket and TLS session details.
void setKernelTraceLevel(int level);
int getKernelTraceLevel();

}  // namespace kivreg
