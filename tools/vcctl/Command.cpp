#include "Command.h"

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

}  // namespace vcctl
