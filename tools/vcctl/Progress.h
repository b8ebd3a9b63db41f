#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace vcctl {

// "1.5 MiB", "12 B"
std::string formatBytes(double bytes);

// A transfer's progress line on standard error, redrawn at most ten times a second:
// a bar if the total is known, and the rate. Draws nothing unless standard error is a terminal.
class Progress {
public:
    Progress(std::string what, std::optional<std::uint64_t> totalBytes);
    // Ends the line.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void add(std::uint64_t bytes) { set(m_done + bytes); }
    void set(std::uint64_t bytes);

private:
    void draw(std::chrono::steady_clock::time_point now);

    const std::string m_what;
    const std::optional<std::uint64_t> m_total;
    const bool m_visible;
    const std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_drawn;
    std::uint64_t m_done = 0;
};

}  // namespace vcctl
