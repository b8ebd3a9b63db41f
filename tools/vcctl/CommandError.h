// How vcctl subcommands report failures.
#pragma once

#include <stdexcept>
#include <string>

namespace vcctl {

// Exit codes, as the man page lists them.
enum ExitCode : int { kOk = 0, kFailed = 1, kUsage = 2, kInterrupted = 130 };

// A failure the user can do something about, with its exit code; printed as "vcctl: <text>".
class CommandError : public std::runtime_error {
public:
    explicit CommandError(const std::string& text, int exitCode = kFailed)
        : std::runtime_error(text), m_exitCode(exitCode) {}
    int exitCode() const { return m_exitCode; }

private:
    int m_exitCode;
};

// A CommandError that ends with the text of `errorNumber`.
CommandError systemError(const std::string& what, int errorNumber);

// The error of a failed write to `where`, by errno. The text is empty if a pipe's reader has left
// (as `head` does), which is not reported.
CommandError outputError(const std::string& where);

}  // namespace vcctl
