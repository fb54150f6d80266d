#include "Progress.h"

#include <unistd.h>

#include <cstdio>

#include "runtime/FileIo.h"

namespace kivreg::cli {
namespace {

constexpr double kMiB = 1024.0 * 1024.0;

}  // namespace

void ProgressLine::write(const std::string& text) {
    // A line that cannot be drawn is not worth failing for.
    rt::writeAll(STDERR_FILENO, text.data(), text.size());
}

void ProgressLine::update(size_t sent, size_t total) {
    const Clock::time_point now = Clock::now();
    if (total == 0) {
        if (m_width > 0) write('\r' + std::string(m_width, ' ') + '\r');
        *this = ProgressLine();
        return;
    }
    if (total < MIN_TOTAL) return;
    if (!m_started) {
        m_started = true;
        m_start = now;
        m_startBytes = sent;
        return;
    }
    if (m_width > 0 && now - m_drawnAt < REDRAW) return;
    m_drawnAt = now;
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    const double rate = seconds > 0 ? static_cast<double>(sent - m_startBytes) / kMiB / seconds : 0;
    char text[128];
    const int n =
        std::snprintf(text, sizeof text, "kivreg: %.1f MiB of %.1f MiB (%d%%), %.1f MiB/s",
                      static_cast<double>(sent) / kMiB, static_cast<double>(total) / kMiB,
                      static_cast<int>(sent * 100 / total), rate);
    if (n <= 0) return;
    std::string line(text, static_cast<size_t>(n));
    const size_t width = line.size();
    if (width < m_width) line.append(m_width - width, ' ');  // covers a longer line before
    write('\r' + line);
    m_width = std::max(m_width, width);
}

}  // namespace kivreg::cli
