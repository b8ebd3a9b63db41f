#include "Namespace.h"

#include <cstdlib>

namespace VDIFrameworkCommon {

namespace {

constexpr std::size_t kMaximumLength = 32;

bool isAllowed(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
}

std::string readNamespace() {
    const char* value = std::getenv("NORVO_VDI_NAMESPACE");
    std::string result = std::string(value ? value : "").substr(0, kMaximumLength);
    for (char& c : result) {
        if (!isAllowed(c)) c = '_';
    }
    return result;
}

}  // namespace

const std::string& sessionNamespace() {
    static const std::string value = readNamespace();
    return value;
}

std::string namespacedName(std::string_view name) {
    const std::string& space = sessionNamespace();
    if (space.empty()) return std::string(name);
    std::string result;
    result.reserve(space.size() + 1 + name.size());
    return result.append(space).append(1, '.').append(name);
}

}  // namespace VDIFrameworkCommon
