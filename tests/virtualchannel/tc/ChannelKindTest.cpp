// What is specific to each kind of channel, and the parts of channels. See ChannelTest.cpp for what
// all channels have in common.
#include <gtest/gtest.h>

#include <thread>

#include "ChannelSupport.h"
#include "DataWorkers.h"
#include "LanguageAbstraction.h"
#include "LogCapture.h"
#include "ObserverSlot.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;

using Calls = std::vector<std::string>;

TEST(DataWorkerTest, SendsACopyOfTheBytesItIsMadeFrom) {
    FakeHost host;
    std::string bytes = "packet";
    DataWorker worker(bytes.data(), 6, true, 7);
    bytes.assign(6, '?');
    EXPECT_EQ(worker.DoWork(), 0);
    EXPECT_EQ(host.packets(), Calls{"packet"});
}

TEST(ObserverSlotTest, IsEmptyOnlyWhenNoThreadIsInsideTheObserver) {
    for (const auto calls : {ObserverCalls::OneAtATime, ObserverCalls::Concurrent}) {
        ObserverSlot slot(calls);
        FakeObserver observer;
        Door entered;
        Door leaves;
        slot.set(&observer);
        std::thread caller([&] {
            slot.notify([&](auto&) {
                entered.open();
                leaves.pass();
            });
        });
        EXPECT_TRUE(entered.pass());
        EXPECT_FALSE(slot.clearAndWait(std::chrono::milliseconds(1)));
        leaves.open();
        EXPECT_TRUE(slot.clearAndWait(std::chrono::seconds(20)));
        caller.join();
        EXPECT_FALSE(slot.notify([](auto&) {}));
    }
}

TEST(CitrixVirtualChannelTest, ShutdownLeavesACallbackBehindThatDoesNotReturn) {
    LogCapture log;
    FakeHost host;
    FakeObserver observer;
    CitrixVirtualChannel channel;
    channel.AddObserver(&observer);
    host.holdUp();
    send(channel, "stuck");
    ASSERT_TRUE(host.waitUntilHeldUp());
    send(channel, "never sent");
    channel.Shutdown();
    EXPECT_TRUE(log.contains("A call of the append callback is under way"));
    host.goOn();
    ASSERT_TRUE(host.waitFor(1));
    EXPECT_EQ(host.messages(), Calls{"stuck"});
}

TEST(CitrixVirtualChannelTest, TellsTheSessionsWindow) {
    LogCapture log;
    CitrixVirtualChannel channel;
    EXPECT_EQ(channel.GetICAWindowInfo().xWinWidth, 0U);
    SetGetWindowInfoFunc([] { return ICAWindowInfo{nullptr, 7, 100, 200, 300, 400, -5, -6, 9}; });
    EXPECT_EQ(GetICAWindowInfo_().padding, 9U);
    EXPECT_EQ(channel.GetICAWindowInfo().reserved, 7U);
    SetGetWindowInfoFunc(nullptr);
    EXPECT_TRUE(
        log.contains("hwnd:0x0 xWinWidth:100 yWinHeight:200 xViewWidth:300 "
                     "yViewHeight:400 xViewOffset:-5 yViewOffset:-6"));
}

TEST(RDPVirtualChannelTest, CountsARunnerWithEveryInitialisation) {
    forgetRunners();
    RDPVirtualChannel channel;
    channel.OnChannelInitialize();
    channel.OnChannelInitialize();
    EXPECT_EQ(runners(), 2U);
    channel.Shutdown();
    EXPECT_EQ(runners(), 1U);
    forgetRunners();
}
