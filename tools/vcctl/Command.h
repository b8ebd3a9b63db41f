// What every subcommand of vcctl shares: how it is added to the command line, how it fails, and how
// it prints.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vcctl {

// Exit codes, as the man page lists them.
enum ExitCode : int { kOk = 0, kFailed = 1, kUsage = 2, kInterrupted = 130 };

// A failure the user can do something about: printed as "vcctl: <text>", and the exit code.
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

// What a failed write to `where` throws, by errno. Nobody is told that a pipe's reader has left
// (as `head` does): the text is empty then.
CommandError outputError(const std::string& where);

// Standard output: what is printed arrives at the latest with flushOut(). Both throw CommandError.
void print(std::string_view text);
void flushOut();

// Printable ASCII as it is, other bytes as \xHH, so that nothing from elsewhere steers the terminal
// or breaks a line; "..." where there is more than `most` bytes.
std::string readable(std::string_view bytes, std::size_t most = std::string_view::npos);

// What an option for seconds to wait takes: at most a day.
inline const CLI::Range kWaitRange{0.0, 86400.0};

// Options that several subcommands have.
void addKindOption(CLI::App& command, std::string& kind);
void addLibraryOption(CLI::App& command, std::string& pluginPath);
// The stream's name, the first argument; capacity of its segment, and how many messages to pass.
void addStreamOptions(CLI::App& command, std::string& stream, unsigned int& capacity,
                      std::uint64_t& count);

// Each adds one subcommand; what it sets in `exitCode` is the exit code when nothing was thrown.
void addHostCommand(CLI::App& app, int& exitCode);
void addSendCommand(CLI::App& app, int& exitCode);
void addRecvCommand(CLI::App& app, int& exitCode);
void addWatchCommand(CLI::App& app, int& exitCode);
void addAskCommand(CLI::App& app, int& exitCode);
void addStreamsCommand(CLI::App& app, int& exitCode);
void addDecodeCommand(CLI::App& app, int& exitCode);
void addDemoCommand(CLI::App& app, int& exitCode);

}  // namespace vcctl
