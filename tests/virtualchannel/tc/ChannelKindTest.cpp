// What each kind of channel has of its own; what all have in common is in ChannelTest.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChannelSupport.h"
#include "FakeHost.h"
#include "LogCapture.h"
#include "WorkRecord.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(CitrixVirtualChannelTest, RefusesEverythingAfterShutdown) {
    LogCapture log;
    FakeHost host;
    FakeObserver observer;
    CitrixVirtualChannel channel;
    channel.AddObserver(&observer);
    channel.Shutdown();
    EXPECT_EQ(send(channel, "m"), -1);
    EXPECT_EQ(channel.ReceiveData(nullptr, 0), -1);
    EXPECT_EQ(log.count("virtual channel is shutdown return."), 2);
    channel.ResetChannel();
    channel.onAgentStateChange(false);
    channel.ChannelActive(1);
    channel.Shutdown();
    EXPECT_THAT(observer.calls(), ElementsAre("shutdown", "up", "shutdown"));
    EXPECT_THAT(host.packets(), IsEmpty());
}

TEST(CitrixVirtualChannelTest, ShutdownWithoutAnObserverOnlyRefuses) {
    CitrixVirtualChannel channel;
    const unsigned int before = runners();
    channel.Shutdown();
    EXPECT_EQ(runners(), before);
    EXPECT_EQ(send(channel, "m"), -1);
}

TEST(CitrixVirtualChannelTest, ShutdownLeavesACallbackBehindThatDoesNotReturn) {
    LogCapture log;
    FakeHost host;
    FakeObserver observer;
    CitrixVirtualChannel channel;
    channel.AddObserver(&observer);
    Door door;
    Journal entered;
    holdUp(host, entered, door);
    send(channel, "stuck");
    ASSERT_TRUE(entered.waitFor(1));
    send(channel, "never sent");
    channel.Shutdown();
    EXPECT_TRUE(log.contains("A call of the append callback is under way"));
    door.open();
    ASSERT_TRUE(host.waitFor(1));
    EXPECT_THAT(host.messages(), ElementsAre("stuck"));
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

TEST(RDPVirtualChannelTest, GoesOnAfterShutdown) {
    FakeHost host;
    FakeObserver observer;
    RDPVirtualChannel channel;
    channel.AddObserver(&observer);
    channel.Shutdown();
    EXPECT_EQ(send(channel, "still sent"), 0);
    ASSERT_TRUE(host.waitFor(1));
    receive(channel, packetsOf("still heard", 1500).front());
    EXPECT_THAT(observer.calls(), ElementsAre("shutdown", "still heard"));
}

TEST(RDPVirtualChannelTest, CountsARunnerWithEveryInitialisation) {
    forgetRunners();
    RDPVirtualChannel channel;
    channel.OnChannelInitialize();
    channel.OnChannelInitialize();
    EXPECT_EQ(runners(), 2U);
    channel.Shutdown();
    EXPECT_EQ(runners(), 1U);
}

TEST(RDPVirtualChannelTest, TracesEverySendWithItsPriorityAndSize) {
    LogCapture log;
    RDPVirtualChannel channel;
    send(channel, "12345", true);
    EXPECT_TRUE(log.contains("RDPVirtualChannel::SendData(),lowPriority = 1, size = 5"));
}

TEST(TCPSocketVirtualChannelTest, ShutdownClosesItUntilItIsActiveAgain) {
    FakeHost host;
    FakeObserver observer;
    TCPSocketVirtualChannel channel;
    channel.AddObserver(&observer);
    channel.ChannelActive(1);
    channel.Shutdown();
    EXPECT_EQ(send(channel, "dropped"), 0);
    EXPECT_EQ(receive(channel, packetsOf("unheard", 1500).front()), 0);
    channel.ChannelActive(1);
    send(channel, "sent");
    ASSERT_TRUE(host.waitFor(1));
    EXPECT_THAT(host.messages(), ElementsAre("sent"));
    EXPECT_THAT(observer.calls(), ElementsAre("up", "shutdown", "up"));
}

TEST(VMWareVirtualChannelTest, GoesOnAfterShutdownUntilItIsInactive) {
    FakeHost host;
    FakeObserver observer;
    VMWareVirtualChannel channel;
    channel.AddObserver(&observer);
    channel.ChannelActive(1);
    channel.Shutdown();
    send(channel, "sent");
    channel.ChannelActive(0);
    send(channel, "dropped");
    receive(channel, packetsOf("unheard", 1000).front());
    ASSERT_TRUE(host.waitFor(1));
    EXPECT_THAT(host.messages(), ElementsAre("sent"));
    EXPECT_THAT(observer.calls(), ElementsAre("up", "shutdown", "down"));
}
