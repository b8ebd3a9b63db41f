// The end of an agent: in every state, from any permitted thread, while others are still calling.
#include "AgentFixture.h"
#include "Rounds.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {

using AgentLifecycle = AgentTest;

// Runs `call` and expects it to end well within the 5 s that it may take at most.
template <class Call>
void endsSoon(const Call& call) {
    const auto start = std::chrono::steady_clock::now();
    call();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace

TEST_F(AgentLifecycle, StopReleasesEverythingInOrder) {
    m_side.connect();
    m_side.request("CreateStream|Media|500");
    m_side.request("OpenStream|Basic|500");
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Basic", kWrite));
    m_side.sentTexts(2);
    m_side.agent->stop();
    EXPECT_EQ(m_side.sentTexts(1), Texts{"5"});
    EXPECT_FALSE(m_side.agent->IsConnected());
    EXPECT_FALSE(m_channel.isObserved());
    EXPECT_FALSE(m_side.machine->isMarked);
    EXPECT_EQ(m_side.machine->watchesEnded, 1);
    for (const auto& name : Texts{"Media", "Basic", infoOutputName(), infoInputName()}) {
        EXPECT_FALSE(m_side.segment(name)->isOpen()) << name;
        EXPECT_FALSE(m_side.segment(name)->isObserved()) << name;
    }
    EXPECT_EQ(m_log.count("Thread processing 'Media' exiting"), 1);
    m_side.agent->stop();
    const auto lines = m_log.lines();
    auto from = lines.begin();
    for (const std::string step :
         {"Destroying Virtual Channel Agent", "requestDisconnect()",
          "Signal processing threads to stop", "m_pChannel->RemoveObserver "}) {
        from = std::find(from, lines.end(), "side - " + step);
        ASSERT_NE(from, lines.end()) << step;
    }
    EXPECT_EQ(lines.back(), "side - Finished releasing resources");
    EXPECT_EQ(m_log.count("Destroying Virtual Channel Agent"), 1);
}

TEST_F(AgentLifecycle, DestroyingAConnectedAgentWithoutStopLeavesNothingBehind) {
    m_side.connect();
    m_side.request("CreateStream|Media|500");
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    m_side.sentTexts(1);
    const auto media = m_side.segment("Media");
    media->setReader(FakeSegment::Reader::IsStuck);
    m_channel.deliver(routed("Media", "stuck"));
    endsSoon([&] { m_side.agent.reset(); });
    EXPECT_FALSE(m_channel.isObserved());
    EXPECT_FALSE(media->isOpen());
    EXPECT_FALSE(m_side.machine->isMarked);
    EXPECT_EQ(m_channel.sentCount(), 0U);
    EXPECT_EQ(m_side.machine->watchesEnded, 0);
    m_channel.deliver(control(CTL_CONNECT));
}

TEST_F(AgentLifecycle, StopEndsInTheMiddleOfAHandshakeAndSaysNothing) {
    m_side.becomesAvailable();
    takeOne();
    endsSoon([&] { m_side.agent->stop(); });
    EXPECT_EQ(m_channel.sentCount(), 0U);
    EXPECT_TRUE(m_channel.stateChanges().empty());
}

TEST_F(AgentLifecycle, StopEndsWhileTheChannelIsBusyWithItsRunner) {
    m_side.connect();
    m_channel.onStateChange = [&](bool) {
        std::thread([&] { m_channel.deliver(control(CTL_CONNECT)); }).join();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    };
    endsSoon([&] { m_side.agent->stop(); });
    EXPECT_EQ(m_side.sentTexts(1), Texts{"5"});  // and no answer to the handshake
}

TEST_F(AgentLifecycle, StopEndsWhileTheReceivePathIsBlocked) {
    std::atomic<bool> blocked{false};
    m_side.machine->onSegmentSetUp = [&](const std::string& name) {
        if (name != "Media") return;
        blocked = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    };
    std::thread host([&] { m_channel.deliver(aboutStream(CTL_S_CREATE, "Media", kRead)); });
    EXPECT_TRUE(eventually([&] { return blocked.load(); }));
    endsSoon([&] { m_side.agent->stop(); });
    host.join();
    EXPECT_FALSE(m_side.segment("Media")->isOpen());
}

// They leave 5 ms apart, which no thread of the host waits for.
TEST_F(AgentLifecycle, ManyStreamsAreAnnouncedAgainInOrderWithoutHoldingUpTheHost) {
    m_side.connect();
    constexpr std::size_t kStreams = 190;
    for (std::size_t i = 0; i < kStreams; ++i) {
        const std::string name = std::to_string(1000 + i);
        m_channel.deliver(aboutStream(CTL_S_CREATE, name, kRead));
        m_channel.deliver(aboutStream(CTL_S_CREATED, name, kRead));
    }
    m_side.sentTexts(kStreams);
    m_side.machine->pauseTakes = std::chrono::milliseconds(20);
    m_channel.deliver(control(CTL_CONNECT_READY));
    EXPECT_LT(m_channel.sentCount(), kStreams / 2);
    m_side.machine->pauseTakes = std::chrono::milliseconds(0);
    Texts announced = m_side.sentTexts(kStreams + 1);
    std::erase(announced, "4");  // CTL_CONNECTED, which waits for none of them
    EXPECT_EQ(announced.size(), kStreams);
    EXPECT_TRUE(std::is_sorted(announced.begin(), announced.end()));
}

TEST_F(AgentLifecycle, AllStreamsAreClosedWithinTheTimeOfOne) {
    m_side.machine->closeTakes = std::chrono::milliseconds(200);
    for (int i = 0; i < 50; ++i) {
        m_channel.deliver(aboutStream(CTL_S_CREATE, std::to_string(i), i % 2 ? kRead : kWrite));
    }
    endsSoon([&] { m_side.agent->stop(); });
    EXPECT_EQ(m_side.machine->openSegments(), 0);
}

TEST_F(AgentLifecycle, HostCallsFromInsideAQuestionAreTaken) {
    m_channel.onQuestion = [&] {
        m_side.becomesAvailable(false);
        m_channel.deliver(control(CTL_CONNECT));
        m_channel.deliver(control(CTL_CONNECTED));
        m_channel.deliver(aboutStream(CTL_S_CREATE, "Media", kRead));
        m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
        m_channel.callObserver([](auto& o) {
            o.OnSessionAvailabilityChange(false);
            o.OnVirtualChannelShutdown();
            o.OnThinClientPlatformChange(1);
        });
        EXPECT_FALSE(m_side.agent->IsConnected());
    };
    for (const auto& [question, answer] : {std::pair{"IsSeamless", "IsSeamless|0"},
                                           {"IsMultiSession", "IsMultiSession|0"},
                                           {"GetWindowHandle|1", "GetWindowHandle|2"}}) {
        m_side.connect();
        m_side.request(question);
        EXPECT_TRUE(m_side.wasTold(answer)) << question;
    }
}

// What the streams hand to the channel ends first, then the goodbye leaves, and only then may the
// channel drop what is queued.
TEST_F(AgentLifecycle, TheConnectionIsOverBeforeTheChannelHearsOfIt) {
    Texts steps;
    const auto note = [&](const std::string& what) {
        steps.push_back(what + (m_side.agent->IsConnected() ? ", connected" : ", not connected"));
    };
    m_channel.onStateChange = [&](bool connected) { note(connected ? "up" : "down"); };
    m_channel.onSend = [&] { note("send"); };
    m_channel.onWaitUntilSent = [&] { note("wait"); };
    m_side.connect();
    m_channel.deliver(control(CTL_DISCONNECT));
    EXPECT_EQ(steps, (Texts{"up, not connected", "down, not connected"}));
    m_side.connect();
    steps.clear();
    m_side.agent->stop();
    EXPECT_EQ(steps, (Texts{"send, not connected", "wait, not connected", "down, not connected"}));
}

// Everybody calls at once: host threads, local processes, and in the end stop() or the destructor.
TEST_F(AgentLifecycle, AnAgentCanBeEndedAtAnyMoment) {
    for (int round = 0; round < rounds(60); ++round) {
        AgentSide side;
        std::atomic<bool> goOn{true};
        std::vector<std::thread> callers;
        callers.emplace_back([&] {
            for (int i = 0; goOn; ++i) {
                const std::string name = "s" + std::to_string(i % 5);
                side.channel.deliver(control(i % 3 ? CTL_CONNECTED : CTL_CONNECT_READY));
                side.channel.deliver(routed(name, "data"));
                side.channel.deliver(aboutStream(CTL_S_CREATED, name, kRead));
                if (i % 7 == 0) side.channel.deliver(control(CTL_DISCONNECT));
                side.channel.takeSent();
            }
        });
        callers.emplace_back([&] {
            for (int i = 0; goOn; ++i) side.becomesAvailable(i % 2 == 0);
        });
        callers.emplace_back([&] {
            for (int i = 0; goOn; ++i) {
                side.request("OpenStream|r" + std::to_string(i % 5) + "|10");
                side.request("RequestNotifyStream");
                side.request("SetHVDClientInfo|1|2");
                std::this_thread::yield();
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 8));
        endsSoon([&] {
            if (round % 2) side.agent->stop();
            side.agent.reset();
        });
        goOn = false;
        for (auto& caller : callers) caller.join();
        EXPECT_FALSE(side.channel.isObserved());
        EXPECT_FALSE(side.machine->isMarked);
        EXPECT_EQ(side.machine->openSegments(), 0);
    }
}

// The real machine: nobody reads the notifications, and nobody takes what 20 streams carry.
TEST(AgentOnRealSegments, StopEndsAlthoughNobodyReads) {
    FakeChannel channel;
    Agent agent(&channel, "real");
    channel.deliver(control(CTL_CONNECTED));
    for (int i = 0; i < 20; ++i) {
        const std::string name = "s" + std::to_string(i);
        channel.deliver(routed(name, std::string(5000, 'x')));
        channel.deliver(routed(name, std::string(5000, 'y')));
        channel.deliver(aboutStream(CTL_S_CREATED, name, kRead));
        channel.deliver(aboutStream(CTL_S_CREATE, "r" + std::to_string(i), kWrite));
        channel.deliver(aboutStream(CTL_S_CREATED, "r" + std::to_string(i), kWrite));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // writers are in their waits
    endsSoon([&] { agent.stop(); });
    EXPECT_FALSE(channel.isObserved());
}
