#pragma once

#include <iosfwd>
#include <string>

namespace hosts {

// What /proc/net/unix tells about the RDP session of a display. xrdp's own interface does not tell:
// a channel opens without a client, and stays open when the client leaves.
enum class DesktopSession {
    None,      // no xrdp session has this display, or the system does not show it
    NoClient,  // nobody is connected to it
    Attached,
};

// `sockets`: the text of /proc/net/unix. `display`: the number in DISPLAY.
DesktopSession desktopSession(std::istream& sockets, int display);
DesktopSession desktopSession(int display);

// The number in ":10.0"; -1 for another text, and for null.
int displayNumber(const char* display);

// Whether the text of an xrdp.ini allows channels at all, and whether it lets `name` through then.
bool allowsChannels(std::istream& xrdpIni);
bool allowsChannel(std::istream& xrdpIni, const std::string& name);

}  // namespace hosts
