#pragma once
// Helpers for the model tests: documents from text, the test documents, the
// log from a given message on, and standard input replaced by a file.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "model/CXmlFile.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {

inline std::string modelData(const std::string& name) {
    return std::string(KIVREG_TEST_DATA_DIR) + "/model/" + name;
}

inline std::unique_ptr<CXmlFile> loadText(LogCapture& cap, const std::string& utf8) {
    return std::make_unique<CXmlFile>(cap, u16(utf8), 0);
}

// The transfer body of the document in its chosen format.
inline std::string body(const CXmlFile& file) {
    std::string out;
    file.appendBody(out);
    return out;
}

// The log text (lines joined by "\n") from message number `first` on.
inline std::string loggedSince(const LogCapture& cap, size_t first) {
    const std::vector<std::string> all = cap.messages();
    std::string out;
    for (size_t i = first; i < all.size(); ++i) out += (i > first ? "\n" : "") + all[i];
    return out;
}

class StdinFrom {
public:
    explicit StdinFrom(const std::string& bytes) : m_saved(::dup(0)) {
        writeFile(m_dir / "stdin", bytes);
        const int fd = ::open((m_dir / "stdin").c_str(), O_RDONLY);
        ::dup2(fd, 0);
        ::close(fd);
        std::clearerr(stdin);
    }
    ~StdinFrom() {
        ::dup2(m_saved, 0);
        ::close(m_saved);
        std::clearerr(stdin);
    }
    StdinFrom(const StdinFrom&) = delete;
    StdinFrom& operator=(const StdinFrom&) = delete;

private:
    TempDir m_dir;
    int m_saved;
};

}  // namespace kivreg::test
