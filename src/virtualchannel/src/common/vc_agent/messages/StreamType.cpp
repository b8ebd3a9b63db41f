#include "StreamType.h"

#include <unistd.h>

namespace VirtualChannelAgent::utils {

std::string STypeToString(StreamType type) {
    switch (type) {
        case StreamType::READ:
            return "READ";
        case StreamType::WRITE:
            return "WRITE";
        default:
            return {};
    }
}

StreamType StringToSType(const std::string& text) {
    if (text == "READ") return StreamType::READ;
    if (text == "WRITE") return StreamType::WRITE;
    return StreamType::INVALID;
}

StreamType intToSType(int value) {
    return value == 0 || value == 1 ? static_cast<StreamType>(value) : StreamType::INVALID;
}

bool IsStreamTypeValid(StreamType type) {
    return type == StreamType::READ || type == StreamType::WRITE;
}

bool IsStreamTypeValid(const std::string& text) { return IsStreamTypeValid(StringToSType(text)); }

StreamType GetMirroredSType(StreamType type) {
    switch (type) {
        case StreamType::READ:
            return StreamType::WRITE;
        case StreamType::WRITE:
            return StreamType::READ;
        default:
            return StreamType::INVALID;
    }
}

std::string GetMirroredSType(const std::string& text) {
    return STypeToString(GetMirroredSType(StringToSType(text)));
}

std::string GetProcessId() { return std::to_string(getpid()); }

void split(const std::string& text, std::set<std::string>& out, const std::string& delimiters) {
    out.clear();
    std::size_t begin = text.find_first_not_of(delimiters);
    while (begin != std::string::npos) {
        const std::size_t end = text.find_first_of(delimiters, begin);
        out.insert(text.substr(begin, end - begin));
        begin = text.find_first_not_of(delimiters, end);
    }
}

}  // namespace VirtualChannelAgent::utils
