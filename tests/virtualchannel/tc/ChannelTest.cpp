// What all channels have in common; ChannelKindTest.cpp covers what is specific to a kind.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <thread>

#include "ChannelSupport.h"
#include "Eventually.h"
#include "LanguageAbstraction.h"
#include "LogCapture.h"
#include "SharedMemoryFactory.h"
#include "VCMessage.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;
using NorvoVirtualChannel::StreamSend;
using packettest::pattern;

namespace {

using Calls = std::vector<std::string>;

// A message of the peer agent.
std::string agentMessage(VirtualChannelAgent::MessageTypeEnum type, const std::string& stream = {},
                         unsigned int streamType = 0) {
    VirtualChannelAgent::VCMessage message;
    message.setMessageType(type);
    if (!stream.empty()) {
        message.setStreamName(stream);
        message.setStreamType(streamType);
        message.setStreamSize(1000);
    }
    return packettest::textOf(message.wireBytes());
}

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
    std::future<StreamSend> streamSends(const std::string& message) {
        return std::async(std::launch::async, [this, message] {
            return m_channel.SendStreamData(message.data(),
                                            static_cast<unsigned int>(message.size()), false,
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
    const auto payload = static_cast<std::size_t>(m_kind.maxMsgSize) - 24;
    const std::string message = pattern(2 * payload + 77);
    const std::string onePacket = pattern(payload);
    for (const auto& each : {message, onePacket, std::string()}) {
        EXPECT_EQ(send(m_channel, each), 0);
    }
    ASSERT_TRUE(m_host.waitFor(5));
    std::vector<std::size_t> sizes;
    for (const auto& packet : m_host.packets()) sizes.push_back(packet.size());
    EXPECT_EQ(sizes,
              (std::vector<std::size_t>{77 + 24, payload + 24, payload + 24, payload + 24, 24}));
    EXPECT_EQ(m_host.messages(), (Calls{message, onePacket, ""}));
}

TEST_P(ChannelTest, WithTheGateClosedTakesMessagesAndDropsThem) {
    LogCapture log;
    open();
    FakeHost::host().setActive(false);
    EXPECT_EQ(send(m_channel, "lost"), 0);
    EXPECT_TRUE(eventually([&] { return log.contains("will NOT appendBuffer"); }));
    FakeHost::host().setActive(true);
    send(m_channel, "kept");
    ASSERT_TRUE(m_host.waitFor(1));
    EXPECT_EQ(m_host.messages(), Calls{"kept"});
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

// A real agent, whose stream's read thread waits for a host that takes nothing.
TEST_P(ChannelTest, AnAgentEndsWhileItsStreamsWaitForTheHost) {
    namespace vca = VirtualChannelAgent;
    m_channel.OnChannelInitialize();
    m_channel.ChannelActive(1);
    receiveAll(agentMessage(vca::CTL_CONNECTED));
    receiveAll(agentMessage(vca::CTL_S_CREATE, "Media", 1));
    receiveAll(agentMessage(vca::CTL_S_CREATED, "Media", 1));
    m_host.holdUp();
    const auto segment =
        shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Plain);
    ASSERT_TRUE(segment->Create("Media", 1000));
    const std::string message = pattern(100 * 4992);
    EXPECT_TRUE(segment->WriteData(message.data(), static_cast<unsigned int>(message.size())));
    ASSERT_TRUE(m_host.waitUntilHeldUp());
    m_channel.Shutdown();
    m_host.goOn();
    segment->Close();
    EXPECT_LT(m_host.packets().size(), 20U);
}

// A restarted sender may use its predecessor's message IDs. With a real agent, as only the agent
// recognises a peer's first message.
TEST_P(ChannelTest, JoinsNothingAcrossANewBeginning) {
    const struct {
        const char* what;
        std::function<void()> happens;
        bool joins;
    } cases[] = {
        {"the host repeats itself", [&] { m_channel.ChannelActive(1); }, true},
        {"the channel was lost",
         [&] {
             m_channel.ChannelActive(0);
             m_channel.ChannelActive(1);
         },
         false},
        {"the peer looks for an agent",
         [&] { receiveAll(agentMessage(VirtualChannelAgent::CTL_CONNECT)); }, false},
    };
    m_channel.OnChannelInitialize();
    m_channel.ChannelActive(1);
    const std::string message =
        agentMessage(VirtualChannelAgent::CTL_S_ERROR, std::string(2 * 4992, 'n'));
    for (const auto& [what, happens, joins] : cases) {
        SCOPED_TRACE(what);
        LogCapture log;
        auto packets = packetsOf(message, m_kind.maxMsgSize);
        const std::string last = packets.back();
        packets.pop_back();
        for (const auto& packet : packets) receive(m_channel, packet);
        happens();
        receive(m_channel, last);
        EXPECT_EQ(log.count("Remote agent communicated an error in nnn"), joins ? 1 : 0);
        for (const auto& packet : packets) receive(m_channel, packet);
        EXPECT_EQ(log.count("Remote agent communicated an error in nnn"), 1);
    }
    m_channel.Shutdown();
}

TEST_P(ChannelTest, DropsWhatIsNoPacket) {
    open();
    EXPECT_EQ(m_channel.ReceiveData(nullptr, 0), 0);
    EXPECT_EQ(m_channel.ReceiveData(nullptr, 24), 0);
    EXPECT_EQ(receive(m_channel, packetsOf("message", 1000).front() + '?'), 0);
    EXPECT_EQ(m_observer.calls(), Calls{});
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
    LogCapture log;
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
    EXPECT_EQ(log.count("virtual channel is shutdown return."), refusal == 0 ? 0 : 6);
    m_channel.onAgentStateChange(false);
    m_channel.Shutdown();
}

TEST_P(ChannelTest, AsksTheHostAboutWindows) {
    int window = 0;
    EXPECT_FALSE(m_channel.IsMultiSession());
    EXPECT_FALSE(m_channel.IsSeamlessMode());
    EXPECT_EQ(IsSeamlessMode_(), -1);
    EXPECT_EQ(m_channel.GetClientWindowHandleFromServerWindowHandle(&window), nullptr);
    SetIsSeamlessModeFunc([] { return 0; });
    SetGetClientWindowHandleFromServerWindowHandleFunc(
        [](void* server) -> void* { return static_cast<char*>(server) + 1; });
    EXPECT_TRUE(m_channel.IsSeamlessMode());
    EXPECT_EQ(IsSeamlessMode_(), 0);
    void* const client = reinterpret_cast<char*>(&window) + 1;
    EXPECT_EQ(m_channel.GetClientWindowHandleFromServerWindowHandle(&window), client);
    EXPECT_EQ(GetClientWindowHandleFromServerWindowHandle_(&window), client);
    EXPECT_EQ(m_channel.GetClientWindowHandleFromServerWindowHandle(nullptr), nullptr);
    SetIsSeamlessModeFunc([] { return 1; });
    EXPECT_FALSE(m_channel.IsSeamlessMode());
    SetIsSeamlessModeFunc(nullptr);
    SetGetClientWindowHandleFromServerWindowHandleFunc(nullptr);
    EXPECT_EQ(IsSeamlessMode_(), -1);
}

TEST_P(ChannelTest, TracesInItsOwnNameAndInOrder) {
    LogCapture log;
    const auto channel = m_kind.make({});
    EXPECT_EQ(channel->GetType(), m_kind.type);
    channel->AddObserver(&m_observer);
    channel->ChannelActive(1);
    send(*channel, "m", true);
    receive(*channel, packetsOf("m", 1000).front());
    channel->RemoveObserver(&m_observer);
    const std::string name = std::string(m_kind.name) + "VirtualChannel";
    const bool vmware = m_kind.type == NorvoVirtualChannel::kVMware;
    const bool rdp = m_kind.type == NorvoVirtualChannel::kRdp;
    const auto lines = log.lines();
    auto from = lines.begin();
    for (const std::string& text :
         {name + "()", name + "::GetType()",
          name + (vmware ? "::AddObserver(0x" : "::AttachCallback()"),
          name + (rdp ? "::SendData(),lowPriority = 1, size = 1" : "::SendData()"),
          std::string("Creating packet queue."), std::string("Iterating 1 packet(s)."),
          std::string("Getting payload data from the packet."),
          name + (vmware ? "::ReceiveData(0x" : "::ReceiveData()"),
          std::string("Complete message received."),
          name + (vmware ? "::RemoveObserver( 0x" : "::RemoveObserver()")}) {
        from = std::find_if(from, lines.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
        ASSERT_NE(from++, lines.end()) << text;
    }
}

TEST_P(ChannelTest, NeedsAnActiveChannelWhereTheKindSaysSo) {
    LogCapture log;
    m_channel.RemoveObserver(nullptr);
    m_channel.ChannelActive(1);  // without an observer
    m_channel.AddObserver(&m_observer);
    EXPECT_EQ(send(m_channel, "m"), 0);
    receiveAll("in");
    EXPECT_EQ(log.count("Channel is not active, will not receive data."),
              m_kind.needsToBeActive ? 2 : 0);
    m_channel.ChannelActive(1);
    receiveAll("heard");
    EXPECT_EQ(m_observer.calls(),
              m_kind.needsToBeActive ? (Calls{"up", "heard"}) : (Calls{"in", "up", "heard"}));
}
