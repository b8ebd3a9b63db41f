// What all channels have in common; what a kind has of its own is in ChannelKindTest.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <thread>

#include "ChannelSupport.h"
#include "FakeHost.h"
#include "KRANRunner.h"
#include "LogCapture.h"
#include "WorkRecord.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Traits {
    int type;
    int maxMsgSize;
    int breakTime;
    bool needsToBeActive;
    bool lowPriority;      // knows a low priority
    unsigned int runners;  // counted by the constructor
    std::string name;
};

template <class Channel>
Traits traitsOf();
template <>
Traits traitsOf<CitrixVirtualChannel>() {
    return {1, 4992, 3, false, true, 1, "CitrixVirtualChannel"};
}
template <>
Traits traitsOf<VMWareVirtualChannel>() {
    return {2, 1000, 10, true, true, 1, "VMWareVirtualChannel"};
}
template <>
Traits traitsOf<RDPVirtualChannel>() {
    return {3, 1500, 3, false, true, 0, "RDPVirtualChannel"};
}
template <>
Traits traitsOf<TCPSocketVirtualChannel>() {
    return {4, 1500, 0, true, false, 1, "TCPSocketVirtualChannel"};
}

}  // namespace

template <class Channel>
class ChannelTest : public testing::Test {
protected:
    ChannelTest() { m_channel.AddObserver(&m_observer); }

    // Makes a channel of every kind carry packets; the observer has seen nothing.
    void open() {
        m_channel.RemoveObserver(nullptr);
        FakeObserver starter;
        m_channel.AddObserver(&starter);
        m_channel.ChannelActive(1);
        m_channel.AddObserver(&m_observer);
    }
    void receiveAll(const std::string& message) {
        for (const Bytes& packet : packetsOf(message, m_traits.maxMsgSize)) {
            ASSERT_EQ(receive(m_channel, packet), 0);
        }
    }

    const Traits m_traits = traitsOf<Channel>();
    FakeHost m_host;
    FakeObserver m_observer;
    // Where the worker was told to pause, as the number of packets the host had by then.
    std::vector<std::size_t> m_pauses;
    Channel m_channel{[this](std::chrono::milliseconds time) {
        EXPECT_EQ(time.count(), m_traits.breakTime);
        m_pauses.push_back(m_host.packets().size());
    }};
};
TYPED_TEST_SUITE(ChannelTest, Kinds);

TYPED_TEST(ChannelTest, SaysWhatItIs) {
    EXPECT_EQ(this->m_channel.GetType(), this->m_traits.type);
    EXPECT_EQ(this->m_channel.GetMaxMsgSize(), this->m_traits.maxMsgSize);
    EXPECT_FALSE(this->m_channel.IsMultiSession());
}

TYPED_TEST(ChannelTest, SendsAMessageAsPacketsOfItsSizeLastOneFirst) {
    this->open();
    const std::string message = patternOf(2500 + 2 * 4992);
    EXPECT_EQ(send(this->m_channel, message), 0);
    const std::size_t payload = static_cast<std::size_t>(this->m_traits.maxMsgSize) - 24;
    const std::size_t count = (message.size() + payload - 1) / payload;
    ASSERT_TRUE(this->m_host.waitFor(count));
    const auto packets = this->m_host.packets();
    ASSERT_EQ(packets.size(), count);
    EXPECT_EQ(packets.front().size(), message.size() % payload + 24);
    EXPECT_EQ(packets.back().size(), static_cast<std::size_t>(this->m_traits.maxMsgSize));
    EXPECT_EQ(this->m_host.messages(), std::vector<std::string>{message});
    EXPECT_TRUE(this->m_host.everyFlagWasOne());
}

TYPED_TEST(ChannelTest, AMessageThatFitsIsOnePacket) {
    this->open();
    const std::string message = patternOf(static_cast<std::size_t>(this->m_traits.maxMsgSize) - 24);
    send(this->m_channel, message);
    send(this->m_channel, "");
    ASSERT_TRUE(this->m_host.waitFor(2));
    EXPECT_THAT(this->m_host.messages(), ElementsAre(message, ""));
}

TYPED_TEST(ChannelTest, WithTheGateClosedTakesMessagesAndDropsThem) {
    LogCapture log;
    this->open();
    FakeHost::host().setActive(false);
    EXPECT_EQ(send(this->m_channel, "lost"), 0);
    for (int i = 0; i < 20000 && !log.contains("will NOT appendBuffer"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    FakeHost::host().setActive(true);
    send(this->m_channel, "kept");
    ASSERT_TRUE(this->m_host.waitFor(1));
    EXPECT_THAT(this->m_host.messages(), ElementsAre("kept"));
}

TYPED_TEST(ChannelTest, MixesInALowPriorityMessageAfterThreeOthers) {
    this->open();
    Door door;
    Journal entered;
    holdUp(this->m_host, entered, door);
    send(this->m_channel, "first");
    ASSERT_TRUE(entered.waitFor(1));
    for (const char* message : {"l1", "l2"}) send(this->m_channel, message, true);
    for (const char* message : {"h1", "h2", "h3", "h4"}) send(this->m_channel, message);
    door.open();
    ASSERT_TRUE(this->m_host.waitFor(7));
    if (this->m_traits.lowPriority) {
        EXPECT_THAT(this->m_host.messages(),
                    ElementsAre("first", "h1", "h2", "l1", "h3", "h4", "l2"));
    } else {
        EXPECT_THAT(this->m_host.messages(),
                    ElementsAre("first", "l1", "l2", "h1", "h2", "h3", "h4"));
    }
}

TYPED_TEST(ChannelTest, PausesAfterElevenPacketsAndThenAfterEveryTen) {
    this->open();
    Door door;
    this->m_host.onPacket = [&] { door.pass(); };
    for (int i = 0; i < 35; ++i) send(this->m_channel, "x");
    door.open();
    ASSERT_TRUE(this->m_host.waitFor(35));
    this->m_channel.Shutdown();  // of the worker, where the kind does that
    if (this->m_traits.breakTime == 0) {
        EXPECT_THAT(this->m_pauses, IsEmpty());
    } else {
        EXPECT_THAT(this->m_pauses, ElementsAre(11, 21, 31));
    }
}

TYPED_TEST(ChannelTest, LosingThePeerDropsWhatIsNotSentYet) {
    this->open();
    Door door;
    Journal entered;
    holdUp(this->m_host, entered, door);
    send(this->m_channel, "under way");
    ASSERT_TRUE(entered.waitFor(1));
    send(this->m_channel, "dropped");
    send(this->m_channel, "dropped", true);
    this->m_channel.onAgentStateChange(false);
    send(this->m_channel, "new");
    door.open();
    ASSERT_TRUE(this->m_host.waitFor(2));
    EXPECT_THAT(this->m_host.messages(), ElementsAre("under way", "new"));
}

TYPED_TEST(ChannelTest, DeliversWhatArrivesWholeAndInAnyOrder) {
    this->open();
    const std::string large = patternOf(3 * 4992);
    auto packets = packetsOf(large, this->m_traits.maxMsgSize);
    std::swap(packets.front(), packets.back());
    const Bytes last = packets.back();
    packets.pop_back();
    for (const Bytes& packet : packets) receive(this->m_channel, packet);
    this->receiveAll("small");
    EXPECT_THAT(this->m_observer.calls(), ElementsAre("small"));
    receive(this->m_channel, last);
    EXPECT_THAT(this->m_observer.calls(), ElementsAre("small", large));
}

TYPED_TEST(ChannelTest, DropsWhatIsNoPacket) {
    this->open();
    Bytes packet = packetsOf("message", 1000).front();
    EXPECT_EQ(this->m_channel.ReceiveData(nullptr, 0), 0);
    EXPECT_EQ(this->m_channel.ReceiveData(nullptr, 24), 0);
    for (unsigned int length = 0; length < packet.size(); ++length) {
        const Bytes exact(packet.begin(), packet.begin() + length);
        EXPECT_EQ(receive(this->m_channel, exact), 0);
    }
    packet[2] = 0;
    EXPECT_EQ(receive(this->m_channel, packet), 0);
    EXPECT_THAT(this->m_observer.calls(), IsEmpty());
}

TYPED_TEST(ChannelTest, PassesAvailabilityOnAndNothingElse) {
    for (const int state : {1, 0, 2, -1, 5, 1}) this->m_channel.ChannelActive(state);
    EXPECT_THAT(this->m_observer.calls(), ElementsAre("up", "down", "up"));
}

TYPED_TEST(ChannelTest, TheLastObserverCountsAndAnyRemovalEmptiesThePlace) {
    FakeObserver other;
    this->m_channel.AddObserver(&other);
    this->m_channel.ChannelActive(1);
    this->m_channel.RemoveObserver(&this->m_observer);
    this->m_channel.ChannelActive(0);
    this->receiveAll("unheard");
    EXPECT_THAT(this->m_observer.calls(), IsEmpty());
    EXPECT_THAT(other.calls(), ElementsAre("up"));
}

TYPED_TEST(ChannelTest, AnObserverMayComeBackIn) {
    this->open();
    FakeObserver next;
    this->m_observer.onCall = [&](const std::string& call) {
        if (call != "message") return;
        send(this->m_channel, "answer");
        this->m_channel.ChannelActive(1);
        this->m_channel.RemoveObserver(nullptr);
        this->m_channel.AddObserver(&next);
    };
    LogCapture log;
    this->receiveAll("message");
    EXPECT_THAT(this->m_observer.calls(), ElementsAre("up", "message"));
    ASSERT_TRUE(this->m_host.waitFor(1));
    this->receiveAll("later");
    EXPECT_THAT(next.calls(), ElementsAre("later"));
}

TYPED_TEST(ChannelTest, APacketFromInsideADeliveryIsDropped) {
    this->open();
    LogCapture log;
    this->m_observer.onCall = [&](const std::string& call) {
        if (call == "outer") this->receiveAll("inner");
    };
    this->receiveAll("outer");
    EXPECT_THAT(this->m_observer.calls(), ElementsAre("outer"));
    EXPECT_TRUE(log.contains("A packet from inside a delivery is dropped."));
}

TYPED_TEST(ChannelTest, ShutdownInsideACallbackIsIgnored) {
    LogCapture log;
    this->m_observer.onCall = [&](const std::string& call) {
        if (call == "up") this->m_channel.Shutdown();
    };
    this->m_channel.ChannelActive(1);
    EXPECT_THAT(this->m_observer.calls(), ElementsAre("up"));
    EXPECT_TRUE(log.contains("Shutdown() from inside a callback is ignored."));
}

TYPED_TEST(ChannelTest, RDPCallsItsObserverAtOnceAndTheOthersOneByOne) {
    const bool concurrent = this->m_traits.type == 3;
    this->open();
    std::atomic<int> inside{0};
    std::atomic<bool> met{false};
    this->m_observer.onCall = [&](const std::string&) {
        if (++inside == 2) met = true;
        for (int waits = concurrent ? 20000 : 20; !met && waits > 0; --waits) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        --inside;
    };
    std::thread other([&] { this->m_channel.ChannelActive(1); });
    this->receiveAll("message");
    other.join();
    EXPECT_EQ(met, concurrent);
    EXPECT_EQ(this->m_observer.calls().size(), 2U);
}

TYPED_TEST(ChannelTest, ShutdownTellsTheObserverAndTakesBackTheRunner) {
    forgetRunners();
    TypeParam channel;
    EXPECT_EQ(runners(), this->m_traits.runners);
    addRunner();
    unsigned int whenTold = 99;
    this->m_observer.onCall = [&](const std::string&) { whenTold = runners(); };
    channel.AddObserver(&this->m_observer);
    channel.Shutdown();
    EXPECT_EQ(whenTold, this->m_traits.type == 3 ? 0U : 2U);  // RDP takes its runner back first
    EXPECT_EQ(runners(), this->m_traits.runners);
    channel.RemoveObserver(nullptr);
    channel.Shutdown();
    EXPECT_THAT(this->m_observer.calls(), ElementsAre("shutdown"));
    forgetRunners();
}

TYPED_TEST(ChannelTest, AsksTheHostAboutWindows) {
    auto& host = FakeHost::host();
    int window = 0;
    EXPECT_FALSE(this->m_channel.IsSeamlessMode());
    EXPECT_EQ(this->m_channel.GetClientWindowHandleFromServerWindowHandle(&window), nullptr);
    host.setIsSeamlessMode([] { return 0; });
    host.setGetClientWindow([](void* server) -> void* { return static_cast<char*>(server) + 1; });
    EXPECT_TRUE(this->m_channel.IsSeamlessMode());
    EXPECT_EQ(this->m_channel.GetClientWindowHandleFromServerWindowHandle(&window),
              reinterpret_cast<char*>(&window) + 1);
    EXPECT_EQ(this->m_channel.GetClientWindowHandleFromServerWindowHandle(nullptr), nullptr);
    host.setIsSeamlessMode([] { return 1; });
    EXPECT_FALSE(this->m_channel.IsSeamlessMode());
    host.setIsSeamlessMode(nullptr);
    host.setGetClientWindow(nullptr);
}

TYPED_TEST(ChannelTest, TracesInItsOwnNameAndInOrder) {
    LogCapture log;
    const std::string& name = this->m_traits.name;
    TypeParam channel;
    channel.GetType();
    FakeObserver observer;
    channel.AddObserver(&observer);
    channel.ChannelActive(1);
    send(channel, "m");
    const Bytes packet = packetsOf("m", 1000).front();
    receive(channel, packet);
    channel.RemoveObserver(&observer);
    const bool vmware = name == "VMWareVirtualChannel";
    const auto lines = log.lines();
    auto from = lines.begin();
    for (const std::string& text :
         {name + "()", name + "::GetType()",
          name + (vmware ? "::AddObserver(0x" : "::AttachCallback()"), name + "::SendData()",
          std::string("Creating packet queue."), std::string("Iterating 1 packet(s)."),
          std::string("Getting payload data from the packet."),
          name + (vmware ? "::ReceiveData(0x" : "::ReceiveData()"),
          std::string("Complete message received."),
          name + (vmware ? "::RemoveObserver( 0x" : "::RemoveObserver()")}) {
        from = std::find_if(from, lines.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
        ASSERT_NE(from, lines.end()) << text;
        ++from;
    }
}

TYPED_TEST(ChannelTest, NeedsAnActiveChannelWhereTheKindSaysSo) {
    LogCapture log;
    this->m_channel.RemoveObserver(nullptr);
    this->m_channel.ChannelActive(1);  // nobody is there to take note
    this->m_channel.AddObserver(&this->m_observer);
    EXPECT_EQ(send(this->m_channel, "m"), 0);
    this->receiveAll("in");
    const int refusals = log.count("Channel is not active, will not receive data.");
    EXPECT_EQ(refusals, this->m_traits.needsToBeActive ? 2 : 0);
    EXPECT_EQ(this->m_observer.calls().size(), this->m_traits.needsToBeActive ? 0U : 1U);
    this->m_channel.ChannelActive(1);
    this->receiveAll("heard");
    EXPECT_EQ(this->m_observer.calls().back(), "heard");
}
