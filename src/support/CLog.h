#pragma once
// The log stream: every entry goes to standard output and, once a log file is
// set, is appended to that file too. An entry is composed with << and written
// as a whole by endlog:   log << timestamp << u"text" << value << endlog;

#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

namespace kivreg {

class CLog {
public:
    CLog();
    ~CLog();
    CLog(const CLog&) = delete;
    CLog& operator=(const CLog&) = delete;

    void setFileName(const std::u16string& fileName);
    bool isOpen() const { return m_file != nullptr; }
    void close();

    // Writes the pending line to standard output and the log file.
    void flush();
    void clearBuffer() { m_line.clear(); }

    const std::u16string& getFileName() const { return m_fileName; }

    // Keeps the entries from here on back until they are released (written
    // out in order) or dropped; for messages that only count if what
    // follows them succeeds.
    void holdBack() { m_holding = true; }
    void releaseHeld(bool write);

    CLog& operator<<(char16_t c);
    CLog& operator<<(const char16_t* text);
    CLog& operator<<(std::u16string_view text);
    CLog& operator<<(const std::u16string& text) { return *this << std::u16string_view(text); }
    // UTF-8 text from outside the library (system and TLS messages); malformed
    // bytes are shown as U+FFFD rather than failing the entry.
    CLog& operator<<(const char* utf8);
    CLog& operator<<(bool value);
    CLog& operator<<(int value);
    CLog& operator<<(unsigned long value);
    CLog& operator<<(CLog& (*manipulator)(CLog&)) { return manipulator(*this); }
    CLog& operator<<(char) = delete;  // would print as a number

private:
    void openFile();
    template <typename T>
    CLog& appendNumber(T value);
    void write(const std::string& bytes);

    std::u16string m_line;
    std::u16string m_fileName;
    std::string m_held;  // UTF-8 lines
    bool m_holding = false;
    std::FILE* m_file = nullptr;
};

// Ends an entry: writes it out and starts a new one.
CLog& endlog(CLog& log);
// Inserts the local date and time ("Sat Nov 14 12:04:22 2026") and a blank.
CLog& timestamp(CLog& log);
// A time in the same form, without the blank.
std::string logTime(std::time_t when);

// Appends a 16-bit text as UTF-8, writing U+FFFD for unpaired surrogates.
// For output that must never fail (log lines, prompts).
void appendUtf8Lenient(std::string& out, std::u16string_view text);
// Writes a 16-bit text to a stream as UTF-8 and flushes it (prompts, help).
void writeText(std::FILE* stream, std::u16string_view text);

}  // namespace kivreg
