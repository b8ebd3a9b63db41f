#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

namespace hosts {

// The state of a display's RDP session by /proc/net/unix. xrdp's own interface does not show it:
// a channel opens without a client, and stays open when the client leaves.
struct DesktopSession {
    enum State {
        None,      // no xrdp session has this display, or the system does not show it
        NoClient,  // nobody is connected to it
        Attached,
    };
    State state = None;
    // Attached: another number for each client, also for one that has left and come back.
    std::uint64_t client = 0;
};

// `sockets`: the text of /proc/net/unix. `display`: the number in DISPLAY.
DesktopSession desktopSession(std::istream& sockets, int display);
DesktopSession desktopSession(int display);

// The display number, 10 for ":10.0"; -1 for any other text, and for null.
int displayNumber(const char* display);

// Whether the text of an xrdp.ini allows channels at all, and `name` in particular.
bool allowsChannels(std::istream& xrdpIni);
bool allowsChannel(std::istream& xrdpIni, const std::string& name);

}  // namespace hosts
