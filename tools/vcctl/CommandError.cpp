#include "CommandError.h"

#include <cerrno>
#include <cstring>

namespace vcctl {

CommandError systemError(const std::string& what, int errorNumber) {
    return CommandError(what + ": " + std::strerror(errorNumber));
}

CommandError outputError(const std::string& where) {
    return errno == EPIPE ? CommandError("") : systemError("cannot write " + where, errno);
}

}  // namespace vcctl
