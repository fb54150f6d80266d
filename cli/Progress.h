#pragma once
// The progress line drawn on standard error (a terminal) while a large body
// is sent: "kivreg: 41.2 MiB of 97.9 MiB (42%), 38.5 MiB/s". It never reaches
// the log or the trace.

#include <chrono>
#include <cstddef>
#include <string>

namespace kivreg::cli {

class ProgressLine {
public:
    static constexpr size_t MIN_TOTAL = size_t{1} << 20;  // smaller bodies go without a line
    static constexpr std::chrono::milliseconds REDRAW{100};

    // Bytes sent of the total, first before the send starts; (0, 0) erases
    // the line once the send has ended.
    void update(size_t sent, size_t total);

private:
    using Clock = std::chrono::steady_clock;
    void write(const std::string& text);

    Clock::time_point m_start;
    Clock::time_point m_drawnAt;
    size_t m_startBytes = 0;
    size_t m_width = 0;  // of the line on screen, 0 when none is
    bool m_started = false;
};

}  // namespace kivreg::cli
