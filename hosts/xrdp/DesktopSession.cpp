#include "DesktopSession.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>

namespace hosts {

namespace {

std::string withoutSpaceAndCase(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (!std::isspace(static_cast<unsigned char>(c)))
            result += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return result;
}

// False also if the section lacks it.
bool isOn(std::istream& ini, const std::string& section, const std::string& name) {
    bool inSection = false;
    const std::string key = withoutSpaceAndCase(name) + '=';
    for (std::string raw; std::getline(ini, raw);) {
        const std::string line = withoutSpaceAndCase(raw);
        if (line.starts_with('[')) inSection = line == section;
        if (!inSection || !line.starts_with(key)) continue;
        const std::string value = line.substr(key.size());
        return value == "true" || value == "yes" || value == "1" || value == "on";
    }
    return false;
}

}  // namespace

// Each line: number, references, protocol, flags, type, state, inode, path.
DesktopSession desktopSession(std::istream& sockets, int display) {
    const std::string end = "/xrdp_chansrv_socket_" + std::to_string(display);
    DesktopSession result;
    for (std::string line; std::getline(sockets, line);) {
        if (!line.ends_with(end)) continue;
        std::istringstream fields(line);
        std::string ignored;
        std::string state;
        std::uint64_t inode = 0;
        fields >> ignored >> ignored >> ignored >> ignored >> ignored >> state >> inode;
        if (state == "03") return {DesktopSession::Attached, inode};
        result.state = DesktopSession::NoClient;
    }
    return result;
}

DesktopSession desktopSession(int display) {
    std::ifstream sockets("/proc/net/unix");
    return desktopSession(sockets, display);
}

int displayNumber(const char* display) {
    const char* colon = display ? std::strrchr(display, ':') : nullptr;
    int number = -1;
    if (colon) std::from_chars(colon + 1, colon + std::strlen(colon), number);
    return number;
}

bool allowsChannels(std::istream& xrdpIni) { return isOn(xrdpIni, "[globals]", "allow_channels"); }

bool allowsChannel(std::istream& xrdpIni, const std::string& name) {
    return isOn(xrdpIni, "[channels]", name);
}

}  // namespace hosts
