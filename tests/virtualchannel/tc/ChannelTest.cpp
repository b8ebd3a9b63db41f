// The four channels; the table in ChannelSupport.h says how they differ.

#include "ChannelSupport.h"
#include "DataWorkers.h"
#include "FakeChannel.h"
#include "LanguageAbstraction.h"
#include "ObserverSlot.h"
#include "SharedMemoryFactory.h"
#include "TestSupport.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;
using namespace VirtualChannelAgent;
using NorvoVirtualChannel::StreamSend;
using packettest::pattern;

namespace {

using Calls = std::vector<std::string>;

class ChannelTest : public testing::TestWithParam<Kind> {
protected:
    ChannelTest() { m_channel.AddObserver(&m_observer); }

    // Makes a channel of any kind carry packets; the observer has recorded nothing yet.
    void open() {
        FakeObserver starter;
        m_channel.AddObserver(&starter);
        m_channel.ChannelActive(1);
        m_channel.AddObserver(&m_observer);
    }
    void receiveAll(const std::string& message) {
        for (const auto& packet : packetsOf(message, m_kind.maxMsgSize)) {
            ASSERT_EQ(receive(m_channel, packet), 0);
        }
    }
    // Starts a real agent.
    void openWithAgent() {
        m_channel.OnChannelInitialize();
        m_channel.ChannelActive(1);
    }
    std::future<StreamSend> streamSends(const std::string& message) {
        return std::async(std::launch::async, [this, message] {
            const auto bytes = std::as_bytes(std::span(message));
            const auto half = bytes.size() / 2;
            return m_channel.SendStreamData({bytes.first(half), bytes.subspan(half)}, false,
                                            [] { return true; });
        });
    }
    // Sends a message whose packet the host holds up.
    void sendAndHoldUp(const std::string& message) {
        m_host.holdUp();
        send(m_channel, message);
        ASSERT_TRUE(m_host.waitUntilHeldUp());
    }

    const Kind& m_kind = GetParam();
    FakeHost m_host;
    FakeObserver m_observer;
    // For each pause of the worker, the number of packets the host had by then.
    std::vector<std::size_t> m_pauses;
    std::unique_ptr<TransportChannel> m_made = m_kind.make([this](std::chrono::milliseconds time) {
        EXPECT_EQ(time.count(), m_kind.breakTime);
        m_pauses.push_back(m_host.packets().size());
    });
    TransportChannel& m_channel = *m_made;
};

INSTANTIATE_TEST_SUITE_P(Kinds, ChannelTest, testing::ValuesIn(kinds::all),
                         testing::PrintToStringParamName());

}  // namespace

TEST_P(ChannelTest, SendsAMessageAsPacketsOfItsSizeLastOneFirst) {
    open();
    const auto most = static_cast<std::size_t>(m_kind.maxMsgSize);
    const Calls messages{pattern(2 * (most - 24) + 77), pattern(most - 24), ""};
    for (const auto& each : messages) EXPECT_EQ(send(m_channel, each), 0);
    ASSERT_TRUE(m_host.waitFor(5));
    std::vector<std::size_t> sizes;
    for (const auto& packet : m_host.packets()) sizes.push_back(packet.size());
    EXPECT_EQ(sizes, (std::vector<std::size_t>{77 + 24, most, most, most, 24}));
    EXPECT_EQ(m_host.messages(), messages);
}

TEST_P(ChannelTest, MixesInALowPriorityMessageAfterThreeOthers) {
    open();
    sendAndHoldUp("first");
    for (const char* message : {"l1", "l2"}) send(m_channel, message, true);
    for (const char* message : {"h1", "h2", "h3", "h4"}) send(m_channel, message);
    m_host.goOn();
    ASSERT_TRUE(m_host.waitFor(7));
    EXPECT_EQ(m_host.messages(), m_kind.lowPriority
                                     ? (Calls{"first", "h1", "h2", "l1", "h3", "h4", "l2"})
                                     : (Calls{"first", "l1", "l2", "h1", "h2", "h3", "h4"}));
}

// The worker's count towards the next pause restarts whenever it runs out of work. A stream that
// sends in turns must not cause that.
TEST_P(ChannelTest, PausesAfterElevenPacketsAndThenAfterEveryTen) {
    open();
    m_channel.onAgentStateChange(true);
    m_host.holdUp();
    auto sending = streamSends(pattern(60 * (static_cast<std::size_t>(m_kind.maxMsgSize) - 24)));
    m_host.goOn();
    EXPECT_EQ(sending.get(), StreamSend::Sent);
    ASSERT_TRUE(m_host.waitFor(60));
    m_channel.onAgentStateChange(false);
    m_channel.Shutdown();  // ends the worker, where the kind does that
    using Pauses = std::vector<std::size_t>;
    EXPECT_EQ(m_pauses, m_kind.breakTime == 0 ? Pauses{} : (Pauses{11, 21, 31, 41, 51}));
}

TEST_P(ChannelTest, AStreamWaitsForTheHostAndTheEndOfItsConnectionDropsWhatWaits) {
    open();
    EXPECT_EQ(streamSends("nobody is there").get(), StreamSend::NotSent);
    m_channel.onAgentStateChange(true);
    sendAndHoldUp("control");
    auto sending = streamSends(pattern(500 * 4992));
    EXPECT_EQ(sending.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    for (const bool lowPriority : {false, true}) send(m_channel, "does not wait", lowPriority);
    m_channel.onAgentStateChange(false);  // drops what has not been sent
    EXPECT_EQ(sending.get(), StreamSend::Dropped);
    m_channel.onAgentStateChange(true);
    EXPECT_EQ(streamSends("next").get(), StreamSend::Sent);
    m_host.goOn();
    ASSERT_TRUE(m_host.waitFor(2));
    EXPECT_EQ(m_host.messages(), (Calls{"control", "next"}));
    m_channel.onAgentStateChange(false);
}

// As replies to a flood of the far side would.
TEST_P(ChannelTest, WhatWaitsForTheHostIsBounded) {
    open();
    LogCapture log;
    sendAndHoldUp("first");
    for (int i = 0; i < 5000; ++i) EXPECT_EQ(send(m_channel, "reply"), 0);
    m_host.goOn();
    EXPECT_TRUE(m_channel.WaitUntilSent(std::chrono::seconds(20)));
    EXPECT_EQ(m_host.packets().size(), 1U + 4096U);
    EXPECT_TRUE(log.contains("The host takes packets too slowly, a message is dropped."));
}

TEST_P(ChannelTest, AnAgentEndsWhileItsStreamsWaitForTheHost) {
    openWithAgent();
    receiveAll(wireOf(control(CTL_CONNECTED)));
    receiveAll(wireOf(aboutStream(CTL_S_CREATE, "Media", 1)));
    receiveAll(wireOf(aboutStream(CTL_S_CREATED, "Media", 1)));
    LogCapture log;
    m_host.holdUp();
    const auto segment =
        shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Plain);
    ASSERT_TRUE(segment->Create("Media", 1000));
    const std::string message = pattern(100 * 4992);
    EXPECT_TRUE(segment->WriteData(message.data(), static_cast<unsigned int>(message.size())));
    ASSERT_TRUE(m_host.waitUntilHeldUp());
    m_channel.Shutdown();
    EXPECT_EQ(log.contains("A call of the append callback is under way"),
              m_kind.type == NorvoVirtualChannel::kCitrix);  // the others keep their worker
    m_host.goOn();
    segment->Close();
    EXPECT_LT(m_host.packets().size(), 20U);
}

// Blocks the host's thread in the log.
TEST_P(ChannelTest, AnAgentIsKeptUntilACallOfTheHostHasLeftIt) {
    struct HoldingSink : KLT::kltlogger::LogSink {
        void write(const KLT::kltlogger::LogRecord& record) override {
            if (record.message.find("Received CTL_NOOP") == std::string_view::npos) return;
            entered.open();
            door.pass();
        }
        Door entered;
        Door door;
    };
    openWithAgent();
    const auto sink = std::make_shared<HoldingSink>();
    const auto before = KLT::kltlogger::setSink(sink);
    auto call = std::async(std::launch::async, [&] { receiveAll(wireOf(control(CTL_NOOP))); });
    EXPECT_TRUE(sink->entered.pass());
    auto end = std::async(std::launch::async, [&] { m_channel.Shutdown(); });
    EXPECT_EQ(end.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    sink->door.open();
    end.get();
    call.get();
    KLT::kltlogger::setSink(before);
}

// A restarted sender may use its predecessor's message IDs. With a real agent, as only the agent
// recognises a peer's first message.
TEST_P(ChannelTest, JoinsNothingAcrossANewBeginning) {
    const std::tuple<const char*, std::function<void()>, bool> cases[] = {
        {"the host repeats itself", [&] { m_channel.ChannelActive(1); }, true},
        {"the channel was lost",
         [&] {
             m_channel.ChannelActive(0);
             m_channel.ChannelActive(1);
         },
         false},
        {"the peer looks for an agent", [&] { receiveAll(wireOf(control(CTL_CONNECT))); }, false},
    };
    openWithAgent();
    const std::string message = wireOf(aboutStream(CTL_S_CREATED, std::string(2 * 4992, 'n'), 0));
    for (const auto& [what, happens, joins] : cases) {
        SCOPED_TRACE(what);
        LogCapture log;
        auto packets = packetsOf(message, m_kind.maxMsgSize);
        const std::string last = packets.back();
        packets.pop_back();
        for (const auto& packet : packets) receive(m_channel, packet);
        happens();
        receive(m_channel, last);
        EXPECT_EQ(log.count("Received CTL_S_CREATED: nnn"), joins ? 1 : 0);
        for (const auto& packet : packets) receive(m_channel, packet);
        EXPECT_EQ(log.count("Received CTL_S_CREATED: nnn"), 1);
    }
}

TEST_P(ChannelTest, PassesAvailabilityOnToItsOneObserver) {
    for (const int state : {1, 0, 2, -1, 5, 1}) m_channel.ChannelActive(state);
    FakeObserver other;
    m_channel.AddObserver(&other);
    m_channel.ChannelActive(1);
    m_channel.RemoveObserver(&m_observer);  // the argument does not matter
    m_channel.ChannelActive(0);
    receiveAll("unheard");
    EXPECT_EQ(m_observer.calls(), (Calls{"up", "down", "up"}));
    EXPECT_EQ(other.calls(), Calls{"up"});
}

TEST_P(ChannelTest, AnObserverMayComeBackIn) {
    open();
    FakeObserver next;
    m_observer.onCall = [&](const std::string& call) {
        if (call == "up") m_channel.Shutdown();
        if (call != "message") return;
        send(m_channel, "answer");
        receiveAll("inner");
        m_channel.ChannelActive(1);
        m_channel.RemoveObserver(nullptr);
        m_channel.AddObserver(&next);
    };
    LogCapture log;
    receiveAll("message");
    EXPECT_EQ(m_observer.calls(), (Calls{"up", "message"}));
    EXPECT_TRUE(log.contains("A packet from inside a delivery is dropped."));
    EXPECT_TRUE(log.contains("Shutdown() from inside a callback is ignored."));
    ASSERT_TRUE(m_host.waitFor(1));
    receiveAll("later");
    EXPECT_EQ(next.calls(), Calls{"later"});
}

TEST_P(ChannelTest, RDPCallsItsObserverAtOnceAndTheOthersOneByOne) {
    const bool concurrent = m_kind.type == NorvoVirtualChannel::kRdp;
    open();
    std::atomic<int> inside{0};
    std::atomic<bool> met{false};
    m_observer.onCall = [&](const std::string&) {
        if (++inside == 2) met = true;
        eventually([&] { return met.load(); }, std::chrono::milliseconds(concurrent ? 20000 : 20));
        --inside;
    };
    std::thread other([&] { m_channel.ChannelActive(1); });
    receiveAll("message");
    other.join();
    EXPECT_EQ(met, concurrent);
    EXPECT_EQ(m_observer.calls().size(), 2U);
}

TEST_P(ChannelTest, ShutdownTellsTheObserverAndTakesBackTheRunner) {
    forgetRunners();
    const auto channel = m_kind.make({});
    EXPECT_EQ(runners(), m_kind.runners);
    addRunner();
    EXPECT_TRUE(VDIFrameworkCommon::VDIRunnerCounter::getInstance().hasRunner());
    unsigned int whenTold = 99;
    m_observer.onCall = [&](const std::string&) { whenTold = runners(); };
    channel->AddObserver(&m_observer);
    channel->Shutdown();
    // RDP removes its runner first.
    EXPECT_EQ(whenTold, m_kind.type == NorvoVirtualChannel::kRdp ? 0U : 2U);
    EXPECT_EQ(runners(), m_kind.runners);
    channel->RemoveObserver(nullptr);
    channel->Shutdown();  // Citrix keeps its runner without an observer
    EXPECT_EQ(runners(), m_kind.type == NorvoVirtualChannel::kCitrix ? 1U : 0U);
    EXPECT_EQ(m_observer.calls(), Calls{"shutdown"});
    forgetRunners();
    removeRunner();  // when there is none
    EXPECT_FALSE(VDIFrameworkCommon::VDIRunnerCounter::getInstance().hasRunner());
}

TEST_P(ChannelTest, PassesMessagesAfterShutdownAsItsKindDoes) {
    const int refusal = m_kind.type == NorvoVirtualChannel::kCitrix ? -1 : 0;
    Calls heard{"up", "shutdown"};
    Calls sent;
    const auto exchange = [&](const std::string& message) {
        EXPECT_EQ(send(m_channel, message), refusal);
        EXPECT_EQ(receive(m_channel, packetsOf(message, 1000).front()), refusal);
        if (std::string(m_kind.passAfterShutdown).find(message) == std::string::npos) return;
        heard.push_back(message);
        sent.push_back(message);
    };
    m_channel.ChannelActive(1);
    m_channel.Shutdown();
    exchange("a");
    m_channel.ChannelActive(0);
    heard.emplace_back("down");
    exchange("b");
    m_channel.ChannelActive(1);
    heard.emplace_back("up");
    exchange("c");
    ASSERT_TRUE(m_host.waitFor(sent.size()));
    EXPECT_EQ(m_host.messages(), sent);
    EXPECT_EQ(m_observer.calls(), heard);
    m_channel.onAgentStateChange(false);
    m_channel.Shutdown();
}

TEST_P(ChannelTest, AsksTheHostAboutWindows) {
    int window = 0;
    void* const client = reinterpret_cast<char*>(&window) + 1;
    const auto expectAnswers = [&](int seamless, void* clientWindow) {
        EXPECT_EQ(IsSeamlessMode_(), seamless);
        EXPECT_EQ(m_channel.IsSeamlessMode(), seamless == 0);
        EXPECT_EQ(m_channel.GetClientWindowHandleFromServerWindowHandle(&window), clientWindow);
        EXPECT_EQ(GetClientWindowHandleFromServerWindowHandle_(&window), clientWindow);
    };
    expectAnswers(-1, nullptr);
    SetIsSeamlessModeFunc([] { return 0; });
    SetGetClientWindowHandleFromServerWindowHandleFunc(
        [](void* server) -> void* { return static_cast<char*>(server) + 1; });
    expectAnswers(0, client);
    EXPECT_EQ(m_channel.GetClientWindowHandleFromServerWindowHandle(nullptr), nullptr);
    SetIsSeamlessModeFunc([] { return 1; });
    expectAnswers(1, client);
    SetIsSeamlessModeFunc(nullptr);
    SetGetClientWindowHandleFromServerWindowHandleFunc(nullptr);
    expectAnswers(-1, nullptr);
    EXPECT_FALSE(m_channel.IsMultiSession());
    EXPECT_EQ(m_channel.GetType(), m_kind.type);
}

TEST_P(ChannelTest, NeedsAnActiveChannelWhereTheKindSaysSo) {
    m_channel.RemoveObserver(nullptr);
    m_channel.ChannelActive(1);  // without an observer
    m_channel.AddObserver(&m_observer);
    send(m_channel, "out");
    receiveAll("in");
    m_channel.ChannelActive(1);
    EXPECT_EQ(receive(m_channel, packetsOf("no packet", 1000).front() + '?'), 0);
    receiveAll("heard");
    send(m_channel, "sent");
    const bool needsIt = m_kind.needsToBeActive;
    EXPECT_EQ(m_observer.calls(), needsIt ? (Calls{"up", "heard"}) : (Calls{"in", "up", "heard"}));
    ASSERT_TRUE(m_host.waitFor(needsIt ? 1 : 2));
    EXPECT_EQ(m_host.messages(), needsIt ? Calls{"sent"} : (Calls{"out", "sent"}));
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

TEST(DataWorkerTest, SendsACopyOfTheBytesItIsMadeFromUnlessTheGateIsClosed) {
    LogCapture log;
    FakeHost host;
    std::string bytes = "packet";
    DataWorker worker(bytes.data(), 6, true, 7);
    bytes.assign(6, '?');
    EXPECT_EQ(worker.DoWork(), 0);
    FakeHost::host().setActive(false);
    EXPECT_EQ(worker.DoWork(), 0);
    EXPECT_EQ(host.packets(), Calls{"packet"});
    EXPECT_TRUE(log.contains("will NOT appendBuffer"));
}

TEST(ObserverSlotTest, GivesUpOnAThreadThatDoesNotLeaveTheObserver) {
    ObserverSlot slot(ObserverCalls::Concurrent);
    FakeObserver observer;
    slot.set(&observer);
    slot.notify([&](auto&) { EXPECT_FALSE(slot.clearAndWait(std::chrono::milliseconds(1))); });
    EXPECT_TRUE(slot.clearAndWait(std::chrono::seconds(20)));
}
