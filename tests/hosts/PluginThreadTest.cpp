#include "PluginThread.h"

#include "PacketBytes.h"
#include "TestSupport.h"

namespace hosts {
namespace {

using packettest::part;
using packettest::wireOf;
using testsupport::eventually;

// What the plug-in has received. It blocks until g_goesOn.
std::vector<std::string> g_received;
std::atomic<bool> g_goesOn = false;
std::atomic<bool> g_begun = false;
std::atomic<bool> g_laterCame = false;
constexpr char kLater[] = "later";

std::uint32_t takeSlowly(unsigned char* data, std::uint32_t length) {
    g_received.emplace_back(data, data + length);
    g_begun = true;
    g_laterCame = g_laterCame || g_received.back().ends_with(kLater);
    g_goesOn.wait(false);
    return length;
}

TEST(PluginThread, JoinsNoPacketFromWhatWasBeforeAndAfterAHole) {
    g_received.clear();
    g_goesOn = g_begun = g_laterCame = false;
    std::vector<std::string> packets;
    std::string stream;
    for (std::uint32_t i = 0; stream.size() < PluginThread::kMostPending + (1U << 20U); ++i) {
        packets.push_back(
            wireOf(part(i, 1, 1, 1476), std::string(1476, static_cast<char>('a' + i % 26))));
        stream += packets.back();
    }
    Plugin plugin(FAKE_PLUGIN);
    plugin.ReceiveData = takeSlowly;
    IdleWatch watch;
    PluginThread thread(plugin, kRdpPacket, watch);
    const auto send = [&](std::string_view bytes) {
        thread.receive({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()});
    };
    // Small pieces still fit where large ones no longer do.
    constexpr std::size_t kLarge = 4001;
    send(std::string_view(stream).substr(0, kLarge));
    EXPECT_TRUE(eventually([] { return g_begun.load(); }));
    for (std::size_t at = kLarge; at < stream.size();) {
        const std::size_t size = at % 2 ? 501 : kLarge;
        send(std::string_view(stream).substr(at, size));
        at += size;
    }
    g_goesOn = true;
    g_goesOn.notify_all();

    // The first bytes after the gap would pass for a packet if one were known to begin there.
    const std::string later =
        wireOf(part(1, 1, 100, 10), std::string(10, 'x')) + wireOf(part(1, 1, 1, 5), kLater);
    EXPECT_TRUE(eventually([&] {
        send(later);
        return g_laterCame.load();
    }));
    thread.end();

    const auto [received, sent] =
        std::mismatch(g_received.begin(), g_received.end(), packets.begin(), packets.end());
    EXPECT_GE(sent - packets.begin(), std::ptrdiff_t{PluginThread::kMostPending / 1500});
    ASSERT_NE(received, g_received.end());
    EXPECT_EQ(received->substr(PacketSplitter::kHeaderSize), kLater);
}

// Of an agent that sends nothing before it has been told for the third time.
std::atomic<int> g_timesTold = 0;
IdleWatch* g_watch = nullptr;

void idleTwice(std::uint32_t active) {
    if (active == 1 && ++g_timesTold == 3) g_watch->noteSent();
}

TEST(PluginThread, TellsAnIdleAgentAgainUntilItSends) {
    g_timesTold = 0;
    Plugin plugin(FAKE_PLUGIN);
    plugin.ChannelActive = idleTwice;
    IdleWatch watch{std::chrono::milliseconds(10)};
    g_watch = &watch;
    PluginThread thread(plugin, kRdpPacket, watch);
    testing::internal::CaptureStderr();
    thread.setActive(true);
    EXPECT_TRUE(eventually([] { return g_timesTold == 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    thread.end();
    EXPECT_EQ(g_timesTold, 3);
    EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("NRVOCW: the agent is silent"));
}

}  // namespace
}  // namespace hosts
