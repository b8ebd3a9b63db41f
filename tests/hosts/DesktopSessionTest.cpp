#include "DesktopSession.h"
#include "TestSupport.h"

namespace hosts {
namespace {

TEST(DesktopSession, IsToldByTheChannelServersSocketAndAllowsTheChannelsThatXrdpLists) {
    std::istringstream sockets(
        "Num RefCount Protocol Flags Type St Inode Path\n"
        "f1: 00000002 00000000 00010000 0001 01 1 /run/xrdp/sockdir/xrdp_chansrv_socket_10\n"
        "f2: 00000002 00000000 00010000 0001 01 2 /run/xrdp/sockdir/xrdp_chansrv_socket_1\n"
        "f3: 00000003 00000000 00000000 0001 03 3 /run/xrdp/sockdir/xrdp_chansrv_socket_1\n");
    const auto sessionOf = [&](int display) {
        sockets.clear();
        sockets.seekg(0);
        return desktopSession(sockets, display);
    };
    EXPECT_EQ(sessionOf(10).state, DesktopSession::NoClient);
    EXPECT_EQ(sessionOf(1).state, DesktopSession::Attached);
    EXPECT_EQ(sessionOf(1).client, 3u);
    EXPECT_EQ(sessionOf(0).state, DesktopSession::None);

    for (const auto& [text, number] : {std::pair{":10.0", 10}, {"host:3", 3}, {"", -1}, {":x", -1}})
        EXPECT_EQ(displayNumber(text), number) << text;
    EXPECT_EQ(displayNumber(nullptr), -1);

    for (const auto& [text, allowed] :
         {std::pair{"[Channels]\nrdpdr=true\n NRVOCW = True\n", true},
          {"[Channels]\nNRVOCW=false\n", false},
          {"[Channels]\n#NRVOCW=true\n[Other]\nNRVOCW=true\n", false}}) {
        std::istringstream ini(text);
        EXPECT_EQ(allowsChannel(ini, "NRVOCW"), allowed) << text;
    }
    for (const auto& [text, allowed] :
         {std::pair{"[Globals]\nallow_channels=true\n", true},
          {"[Globals]\nallow_channels = no\n[Channels]\nallow_channels=true\n", false}}) {
        std::istringstream ini(text);
        EXPECT_EQ(allowsChannels(ini), allowed) << text;
    }
}

}  // namespace
}  // namespace hosts
