#include "Command.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

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

}  // namespace vcctl
