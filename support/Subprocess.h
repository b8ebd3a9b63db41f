// A child process with pipes to its standard input and output; it ends with the object. Started by
// startProcess(). For tests, benchmarks and tools.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "Descriptor.h"

namespace support {

class Subprocess {
public:
    // Starts argv[0] with those arguments; `environment` as for startProcess(). Throws
    // std::runtime_error.
    explicit Subprocess(const std::vector<std::string>& argv,
                        const std::vector<std::string>& environment = {});
    // Kills the child if it is still running, and reaps it.
    ~Subprocess();
    Subprocess(Subprocess&& other) noexcept;
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    pid_t pid() const { return m_pid; }

    // One line of the child's standard output without its line end; empty at the end of the output
    // or after `timeout`.
    std::string readLine(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // The rest of the output, up to its end or `timeout`.
    std::string readAll(std::chrono::milliseconds timeout = std::chrono::seconds(60));
    // Writes `line` and a line end to the child's standard input.
    void writeLine(const std::string& line);
    void closeInput();

    void signal(int number) const;
    void kill() const;
    // Kills every running child of this process; for a program that is about to exit.
    static void endAll();

    // The exit status, or 128 + the signal's number; -1 if it did not end within `timeout`.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(60));

private:
    // Appends output to m_pending. False at the end of the output, or at `deadline`.
    bool readMore(std::chrono::steady_clock::time_point deadline);

    pid_t m_pid = -1;
    Descriptor m_input;
    Descriptor m_output;
    int m_status = -1;
    bool m_reaped = false;
    bool m_ended = false;  // the output
    std::string m_pending;
};

}  // namespace support
