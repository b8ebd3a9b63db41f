// What each kind of channel has of its own; what all have in common is in ChannelTest.cpp.
#include <gtest/gtest.h>

#include "ChannelSupport.h"
#include "DataWorkers.h"
#include "LogCapture.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;

namespace {

using Calls = std::vector<std::string>;

template <class Channel>
struct Watched {
    Watched() { channel.AddObserver(&observer); }
    FakeHost host;
    FakeObserver observer;
    Channel channel;
};

}  // namespace

TEST(DataWorkerTest, SendsACopyOfTheBytesItIsMadeFrom) {
    FakeHost host;
    std::string bytes = "packet";
    DataWorker worker(bytes.data(), 6, true, 7);
    bytes.assign(6, '?');
    EXPECT_EQ(worker.DoWork(), 0);
    EXPECT_EQ(host.packets(), Calls{"packet"});
}

TEST(CitrixVirtualChannelTest, RefusesEverythingAfterShutdown) {
    LogCapture log;
    Watched<CitrixVirtualChannel> watched;
    auto& channel = watched.channel;
    channel.Shutdown();
    EXPECT_EQ(send(channel, "m"), -1);
    EXPECT_EQ(channel.ReceiveData(nullptr, 0), -1);
    EXPECT_EQ(log.count("virtual channel is shutdown return."), 2);
    channel.ResetChannel();
    channel.onAgentStateChange(false);
    channel.ChannelActive(1);
    channel.Shutdown();
    EXPECT_EQ(watched.observer.calls(), (Calls{"shutdown", "up", "shutdown"}));
    EXPECT_EQ(watched.host.packets(), Calls{});

    CitrixVirtualChannel unobserved;
    const unsigned int before = runners();
    unobserved.Shutdown();
    EXPECT_EQ(runners(), before);
    EXPECT_EQ(send(unobserved, "m"), -1);
}

TEST(CitrixVirtualChannelTest, ShutdownLeavesACallbackBehindThatDoesNotReturn) {
    LogCapture log;
    Door door;
    Journal entered;
    Watched<CitrixVirtualChannel> watched;
    holdUp(watched.host, entered, door);
    send(watched.channel, "stuck");
    ASSERT_TRUE(entered.waitFor(1));
    send(watched.channel, "never sent");
    watched.channel.Shutdown();
    EXPECT_TRUE(log.contains("A call of the append callback is under way"));
    door.open();
    ASSERT_TRUE(watched.host.waitFor(1));
    EXPECT_EQ(watched.host.messages(), Calls{"stuck"});
}

TEST(CitrixVirtualChannelTest, TellsTheSessionsWindow) {
    LogCapture log;
    CitrixVirtualChannel channel;
    EXPECT_EQ(channel.GetICAWindowInfo().xWinWidth, 0U);
    FakeHost::host().setGetWindowInfo(
        [] { return ICAWindowInfo{nullptr, 7, 100, 200, 300, 400, -5, -6, 9}; });
    const ICAWindowInfo info = channel.GetICAWindowInfo();
    FakeHost::host().setGetWindowInfo(nullptr);
    EXPECT_EQ(info.reserved, 7U);
    EXPECT_EQ(info.yViewOffset, -6);
    EXPECT_TRUE(
        log.contains("hwnd:0x0 xWinWidth:100 yWinHeight:200 xViewWidth:300 "
                     "yViewHeight:400 xViewOffset:-5 yViewOffset:-6"));
}

TEST(RDPVirtualChannelTest, GoesOnAfterShutdownAndCountsARunnerWithEveryInitialisation) {
    forgetRunners();
    LogCapture log;
    Watched<RDPVirtualChannel> watched;
    auto& channel = watched.channel;
    channel.OnChannelInitialize();
    channel.OnChannelInitialize();
    EXPECT_EQ(runners(), 2U);
    channel.AddObserver(&watched.observer);
    channel.Shutdown();
    EXPECT_EQ(runners(), 1U);
    channel.AddObserver(&watched.observer);
    EXPECT_EQ(send(channel, "still sent", true), 0);
    EXPECT_TRUE(log.contains("RDPVirtualChannel::SendData(),lowPriority = 1, size = 10"));
    ASSERT_TRUE(watched.host.waitFor(1));
    receive(channel, packetsOf("still heard", 1500).front());
    EXPECT_EQ(watched.observer.calls(), (Calls{"shutdown", "still heard"}));
    forgetRunners();
}

TEST(TCPSocketVirtualChannelTest, ShutdownClosesItUntilItIsActiveAgain) {
    Watched<TCPSocketVirtualChannel> watched;
    auto& channel = watched.channel;
    channel.ChannelActive(1);
    channel.Shutdown();
    EXPECT_EQ(send(channel, "dropped"), 0);
    EXPECT_EQ(receive(channel, packetsOf("unheard", 1500).front()), 0);
    channel.ChannelActive(1);
    send(channel, "sent");
    ASSERT_TRUE(watched.host.waitFor(1));
    EXPECT_EQ(watched.host.messages(), Calls{"sent"});
    EXPECT_EQ(watched.observer.calls(), (Calls{"up", "shutdown", "up"}));
}

TEST(VMWareVirtualChannelTest, GoesOnAfterShutdownUntilItIsInactive) {
    Watched<VMWareVirtualChannel> watched;
    auto& channel = watched.channel;
    channel.ChannelActive(1);
    channel.Shutdown();
    send(channel, "sent");
    channel.ChannelActive(0);
    send(channel, "dropped");
    receive(channel, packetsOf("unheard", 1000).front());
    ASSERT_TRUE(watched.host.waitFor(1));
    EXPECT_EQ(watched.host.messages(), Calls{"sent"});
    EXPECT_EQ(watched.observer.calls(), (Calls{"up", "shutdown", "down"}));
}
