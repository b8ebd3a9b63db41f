#include "Command.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ChannelKind.h"

namespace vcctl {

namespace {

constexpr const char* kStandardOutput = "standard output";

}  // namespace

CommandError systemError(const std::string& what, int errorNumber) {
    return CommandError(what + ": " + std::strerror(errorNumber));
}

CommandError outputError(const std::string& where) {
    return errno == EPIPE ? CommandError("") : systemError("cannot write " + where, errno);
}

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        throw outputError(kStandardOutput);
    }
}

void flushOut() {
    if (std::fflush(stdout) != 0) throw outputError(kStandardOutput);
}

std::string readable(std::string_view bytes, std::size_t most) {
    std::string text;
    for (const char each : bytes.substr(0, most)) {
        const auto byte = static_cast<unsigned char>(each);
        if (byte >= 0x20 && byte < 0x7f && byte != '\\') {
            text += each;
        } else {
            text += fmt::format("\\x{:02x}", byte);
        }
    }
    return bytes.size() > most ? text + "..." : text;
}

void addKindOption(CLI::App& command, std::string& kind) {
    std::vector<std::string> names;
    for (const ChannelKind& each : kChannelKinds) names.emplace_back(each.name);
    command.add_option("--kind", kind, "Transport: citrix, vmware, rdp or tcp")
        ->check(CLI::IsMember(names))
        ->capture_default_str();
}

void addLibraryOption(CLI::App& command, std::string& pluginPath) {
    command.add_option("--library", pluginPath, "The plug-in to load instead of the usual one")
        ->type_name("PATH");
}

void addStreamOptions(CLI::App& command, std::string& stream, unsigned int& capacity,
                      std::uint64_t& count) {
    command.add_option("stream", stream, "The stream, for example Media")->required();
    command.add_option("--size", capacity, "Capacity of the stream's segment")
        ->type_name("BYTES")
        ->capture_default_str();
    command.add_option("--count", count, "Stop after so many messages")->type_name("N");
}

}  // namespace vcctl
