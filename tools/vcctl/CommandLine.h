// The command-line parser as the subcommands use it. The parser's headers take longer to compile
// than a whole subcommand, so only one file includes them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace vcctl {

// An option or a positional argument. Each call refines it.
class Argument {
public:
    explicit Argument(CLI::Option* option) : m_option(option) {}

    Argument& required();
    // The value's placeholder in the help, for example "BYTES".
    Argument& type(const char* name);
    // The value is a number of bytes, optionally with a unit: 64K, 1M.
    Argument& bytes();
    // The value is a number of things: 1 or more, in digits only.
    Argument& count();
    // Shows the variable's current value in the help.
    Argument& showDefault();
    Argument& range(double least, double most);
    Argument& range(std::size_t least, std::size_t most);
    Argument& oneOf(const std::vector<std::string>& values);
    Argument& regularFile();
    Argument& excludes(const Argument& other);

private:
    CLI::Option* m_option;
};

// A subcommand. The variables that its arguments fill must live until it has run.
class Command {
public:
    Command(CLI::App& app, const char* name, const char* help);

    // A positional argument if `name` does not begin with '-'. Value: std::string, a vector
    // of them (any number of arguments), unsigned int, std::size_t, std::uint64_t or double.
    template <class Value>
    Argument argument(const char* name, Value& value, const char* help = "");
    void flag(const char* name, bool& value, const char* help);
    void hiddenFlag(const char* name, bool& value);
    // Takes the first argument that is not an option of the command, and all that follow it.
    void rest(std::vector<std::string>& arguments);
    // Sets the text below the list of options.
    void footer(const std::string& text);
    // Keeps the command out of the help.
    void hide();
    void run(const std::function<void()>& action);

private:
    CLI::App* m_app;
};

// Converts "10240" or "64K" to a number of bytes in digits. Throws CommandError.
std::string bytesOf(std::string text);

// Options that several subcommands share.
void addKindOption(Command& command, std::string& kind);
void addLibraryOption(Command& command, std::string& pluginPath);
void addWaitOption(Command& command, double& seconds, const char* help, double least = 0);
// The stream's name (first argument), its segment's capacity, and the number of messages to pass.
void addStreamOptions(Command& command, std::string& stream, unsigned int& capacity,
                      std::uint64_t& count);

// Reads the command line and runs the subcommand it names. Returns the exit code; throws what the
// subcommand throws.
int runCommand(int argc, char** argv);

// Each adds one subcommand, which sets `exitCode`; that is used when nothing was thrown.
void addHostCommand(CLI::App& app, int& exitCode);
void addSendCommand(CLI::App& app, int& exitCode);
void addRecvCommand(CLI::App& app, int& exitCode);
void addWatchCommand(CLI::App& app, int& exitCode);
void addAskCommand(CLI::App& app, int& exitCode);
void addCheckCommand(CLI::App& app, int& exitCode);
void addStreamsCommand(CLI::App& app, int& exitCode);
void addDecodeCommand(CLI::App& app, int& exitCode);
void addDemoCommand(CLI::App& app, int& exitCode);

}  // namespace vcctl
