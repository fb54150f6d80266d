#pragma once
// Helpers for the model tests: loading documents from text and reading the
// test documents.

#include <memory>
#include <string>
#include <vector>

#include "model/CXmlFile.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {

inline std::string modelData(const std::string& name) {
    return std::string(KIVREG_TEST_DATA_DIR) + "/model/" + name;
}

inline std::unique_ptr<CXmlFile> loadText(LogCapture& cap, const std::string& utf8) {
    return std::make_unique<CXmlFile>(cap, u16(utf8), 0);
}

// The log messages that follow the first one equal to `after`.
inline std::vector<std::string> messagesAfter(const LogCapture& cap, const std::string& after) {
    std::vector<std::string> all = cap.messages();
    for (size_t i = 0; i < all.size(); ++i)
        if (all[i] == after) return {all.begin() + static_cast<long>(i) + 1, all.end()};
    return all;
}

// The log text (lines joined by "\n") from message number `first` on.
inline std::string loggedSince(const LogCapture& cap, size_t first) {
    const std::vector<std::string> all = cap.messages();
    std::string out;
    for (size_t i = first; i < all.size(); ++i) out += (i > first ? "\n" : "") + all[i];
    return out;
}

}  // namespace kivreg::test
