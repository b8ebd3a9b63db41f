// What the subcommands need of the command line. The parser's headers take longer to compile than
// all that a subcommand does; with this, one file includes them for all.
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

// An option, or an argument that is told by its place. Each call says more about it.
class Argument {
public:
    explicit Argument(CLI::Option* option) : m_option(option) {}

    Argument& required();
    // What stands for the value in the help, for example "BYTES".
    Argument& type(const char* name);
    // A number of bytes, which may have a unit: 64K, 1M.
    Argument& bytes();
    // Lets the help tell the value that the variable has now.
    Argument& showDefault();
    Argument& range(double least, double most);
    Argument& range(std::size_t least, std::size_t most);
    Argument& oneOf(const std::vector<std::string>& values);
    Argument& existingFile();
    Argument& excludes(const Argument& other);

private:
    CLI::Option* m_option;
};

// A subcommand. The variables that its arguments fill must live until it has run.
class Command {
public:
    Command(CLI::App& app, const char* name, const char* help);

    // An argument told by its place if `name` does not begin with '-'. Value: std::string, a vector
    // of them (any number of arguments), unsigned int, std::size_t, std::uint64_t or double.
    template <class Value>
    Argument argument(const char* name, Value& value, const char* help = "");
    void flag(const char* name, bool& value, const char* help);
    void hiddenFlag(const char* name, bool& value);
    // Takes what is no option of the command, and all that follows it.
    void rest(std::vector<std::string>& arguments);
    // Text below the list of options.
    void footer(const std::string& text);
    // Keeps the command out of the help.
    void hide();
    void run(const std::function<void()>& action);

private:
    CLI::App* m_app;
};

// The number of bytes in digits that a text like "10240" or "64K" means. Throws CommandError.
std::string bytesOf(std::string text);

// What several subcommands have.
void addKindOption(Command& command, std::string& kind);
void addLibraryOption(Command& command, std::string& pluginPath);
void addWaitOption(Command& command, double& seconds, const char* help);
// The stream's name, the first argument; capacity of its segment, and how many messages to pass.
void addStreamOptions(Command& command, std::string& stream, unsigned int& capacity,
                      std::uint64_t& count);

// Reads the command line and runs the subcommand it names. Returns the exit code; throws what the
// subcommand throws.
int runCommand(int argc, char** argv);

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
