#include "Output.h"

#include <fmt/format.h>

#include <cstdio>

#include "CommandError.h"

namespace vcctl {

namespace {

constexpr const char* kStandardOutput = "standard output";

}  // namespace

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
