#include "Progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iterator>

namespace vcctl {

std::string formatBytes(double bytes) {
    static constexpr const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    std::size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < std::size(units)) {
        bytes /= 1024;
        ++unit;
    }
    return fmt::format("{:.{}f} {}", bytes, unit == 0 ? 0 : 1, units[unit]);
}

Progress::Progress(std::string what, std::optional<std::uint64_t> totalBytes)
    : m_what(std::move(what)),
      m_total(totalBytes),
      m_visible(isatty(STDERR_FILENO) == 1),
      m_start(std::chrono::steady_clock::now()) {}

Progress::~Progress() {
    if (!m_visible) return;
    try {
        draw(std::chrono::steady_clock::now());
    } catch (const std::exception&) {
        m_drawn = {};  // failing to draw a progress line is not an error
    }
    std::fputc('\n', stderr);
}

void Progress::set(std::uint64_t bytes) {
    m_done = bytes;
    if (!m_visible) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - m_drawn >= std::chrono::milliseconds(100)) draw(now);
}

void Progress::draw(std::chrono::steady_clock::time_point now) {
    constexpr int kBarWidth = 30;
    m_drawn = now;
    const double seconds = std::max(1e-3, std::chrono::duration<double>(now - m_start).count());
    std::string bar;
    if (m_total && *m_total > 0) {
        const double part =
            std::min(1.0, static_cast<double>(m_done) / static_cast<double>(*m_total));
        const auto filled = static_cast<int>(part * kBarWidth);
        bar =
            fmt::format("[{}{}] {:3.0f} %  ", std::string(static_cast<std::size_t>(filled), '='),
                        std::string(static_cast<std::size_t>(kBarWidth - filled), ' '), part * 100);
    }
    fmt::print(stderr, "\r{}  {}{}  {}/s \x1b[K", m_what, bar,
               formatBytes(static_cast<double>(m_done)),
               formatBytes(static_cast<double>(m_done) / seconds));
}

}  // namespace vcctl
