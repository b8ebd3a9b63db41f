#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "ChannelKind.h"
#include "CommandError.h"
#include "KLTLogger.h"
#include "Namespace.h"
#include "Output.h"
#include "VcctlVersion.h"

namespace vcctl {

namespace {

constexpr double kLongestWait = 86400;  // a day

// Excludes NaN, which passes every range check.
const CLI::Validator kNumber(
    [](const std::string& text) -> std::string {
        return std::isnan(std::strtod(text.c_str(), nullptr)) ? text + " is not a number" : "";
    },
    "");

// The parser's own conversion takes -1 for the largest number, and cuts off what is larger.
const CLI::Validator kCount(
    [](const std::string& text) -> std::string {
        std::uint64_t number = 0;
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, number);
        const bool fits = error == std::errc() && stop == end && number > 0;
        return fits ? "" : text + " is not a number from 1 to " + std::to_string(UINT64_MAX);
    },
    "");

const CLI::Validator kRegularFile(
    [](const std::string& path) -> std::string {
        std::error_code failure;
        const auto type = std::filesystem::status(path, failure).type();
        if (type == std::filesystem::file_type::regular) return "";
        return path + (failure ? ": " + failure.message() : " is not a regular file");
    },
    "");

// K, M and G are powers of 1024. The parser's own conversion takes a unit alone for one of it.
const CLI::AsSizeValue kUnits(false);
const CLI::Validator kBytes(
    [](std::string& text) -> std::string {
        const bool hasNumber = !text.empty() && text[0] >= '0' && text[0] <= '9';
        return hasNumber ? kUnits(text) : text + " is not a number of bytes";
    },
    "");

}  // namespace

Argument& Argument::required() {
    m_option->required();
    return *this;
}

Argument& Argument::type(const char* name) {
    m_option->type_name(name);
    return *this;
}

Argument& Argument::bytes() {
    m_option->transform(kBytes)->type_name("BYTES");
    return *this;
}

Argument& Argument::showDefault() {
    m_option->capture_default_str();
    return *this;
}

Argument& Argument::range(double least, double most) {
    m_option->check(CLI::Range(least, most))->check(kNumber);
    return *this;
}

Argument& Argument::range(std::size_t least, std::size_t most) {
    m_option->check(CLI::Range(least, most));
    return *this;
}

Argument& Argument::oneOf(const std::vector<std::string>& values) {
    m_option->check(CLI::IsMember(values));
    return *this;
}

Argument& Argument::count() {
    m_option->check(kCount)->type_name("N");
    return *this;
}

Argument& Argument::regularFile() {
    m_option->check(kRegularFile);
    return *this;
}

Argument& Argument::excludes(const Argument& other) {
    m_option->excludes(other.m_option);
    return *this;
}

Command::Command(CLI::App& app, const char* name, const char* help)
    : m_app(app.add_subcommand(name, help)) {}

template <class Value>
Argument Command::argument(const char* name, Value& value, const char* help) {
    return Argument(m_app->add_option(name, value, help));
}
template Argument Command::argument(const char*, std::string&, const char*);
template Argument Command::argument(const char*, std::vector<std::string>&, const char*);
template Argument Command::argument(const char*, unsigned int&, const char*);
template Argument Command::argument(const char*, unsigned long&, const char*);
template Argument Command::argument(const char*, unsigned long long&, const char*);
template Argument Command::argument(const char*, double&, const char*);

void Command::flag(const char* name, bool& value, const char* help) {
    m_app->add_flag(name, value, help);
}

void Command::hiddenFlag(const char* name, bool& value) { m_app->add_flag(name, value)->group(""); }

void Command::rest(std::vector<std::string>& arguments) {
    m_app->prefix_command();
    m_app->parse_complete_callback([app = m_app, &arguments] { arguments = app->remaining(); });
}

void Command::footer(const std::string& text) { m_app->footer(text); }

void Command::hide() { m_app->group(""); }

void Command::run(const std::function<void()>& action) { m_app->callback(action); }

void addKindOption(Command& command, std::string& kind) {
    std::vector<std::string> names;
    names.reserve(kChannelKinds.size());
    for (const ChannelKind& each : kChannelKinds) names.emplace_back(each.name);
    command.argument("--kind", kind, ("Transport: " + channelKindNames()).c_str())
        .oneOf(names)
        .showDefault();
}

void addLibraryOption(Command& command, std::string& pluginPath) {
    command.argument("--library", pluginPath, "The plug-in to load instead of the usual one")
        .type("PATH");
}

void addWaitOption(Command& command, double& seconds, const char* help, double least) {
    command.argument("--wait", seconds, help)
        .type("SECONDS")
        .range(least, kLongestWait)
        .showDefault();
}

void addStreamOptions(Command& command, std::string& stream, unsigned int& capacity,
                      std::uint64_t& count) {
    command.argument("stream", stream, "The stream, for example Media").required();
    command
        .argument("--size", capacity,
                  "Capacity of the stream's segment (units: K, M); without --raw at least 128")
        .bytes()
        .range(std::size_t{1}, std::size_t{64} << 20);
    command.argument("--count", count, "Stop after so many messages").count();
}

std::string bytesOf(std::string text) {
    const std::string given = text;
    try {
        if (kBytes(text).empty()) return text;
    } catch (const CLI::Error&) {
    }
    throw CommandError("'" + given + "' is not a number of bytes", kUsage);
}

namespace {

// The library would replace what a namespace does not allow, and two could become one; a level
// that it does not know would leave the default.
void refuseUnsuitableEnvironment() {
    const char* const space = std::getenv("NORVO_VDI_NAMESPACE");
    if (space && VDIFrameworkCommon::sessionNamespace() != space)
        throw CommandError("NORVO_VDI_NAMESPACE is '" + std::string(space) +
                               "': only letters, digits, '-' and '_' are allowed, at most 32",
                           kUsage);
    const char* const level = std::getenv("NORVO_VDI_LOG_LEVEL");
    if (level && !KLT::kltlogger::thresholdIn(level))
        throw CommandError(
            "NORVO_VDI_LOG_LEVEL is '" + std::string(level) + "': it is a number from 0 to 6",
            kUsage);
}

CommandError wrongUse(const CLI::App& app, const CLI::ParseError& error) {
    const auto commands = app.get_subcommands();
    if (commands.empty())
        return CommandError(error.what() + std::string(": see vcctl --help"), kUsage);
    const std::string name = commands[0]->get_name();
    return CommandError(name + ": " + error.what() + ": see vcctl " + name + " --help", kUsage);
}

}  // namespace

int runCommand(int argc, char** argv) {
    refuseUnsuitableEnvironment();
    CLI::App app{"Runs, uses and inspects virtual-channel sessions on this machine."};
    app.name("vcctl");
    app.require_subcommand(1);
    app.set_version_flag("--version", "vcctl " VCCTL_VERSION);
    app.footer(
        "Environment: NORVO_VDI_NAMESPACE separates sessions on one machine, NORVO_VDI_LOG_LEVEL\n"
        "(0 to 6) sets the detail of the log in $HOME/Library/Logs/norvouvdi/.\n"
        "Exit codes: 0 done, 1 failed, 2 wrong usage, 130 interrupted.\n"
        "`vcctl COMMAND --help` describes each command; `man vcctl` has examples.");
    int exitCode = kOk;
    for (const auto add :
         {addHostCommand, addSendCommand, addRecvCommand, addWatchCommand, addAskCommand,
          addCheckCommand, addStreamsCommand, addDecodeCommand, addDemoCommand}) {
        add(app, exitCode);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (argc > 1 && *argv[1] != '-' && app.get_subcommands().empty()) {
            throw CommandError("'" + std::string(argv[1]) + "' is not a command: see vcctl --help",
                               kUsage);
        }
        if (error.get_exit_code() != 0) throw wrongUse(app, error);
        std::ostringstream answer;
        app.exit(error, answer);
        print(answer.str());
        flushOut();
        return kOk;
    }
    return exitCode;
}

}  // namespace vcctl
