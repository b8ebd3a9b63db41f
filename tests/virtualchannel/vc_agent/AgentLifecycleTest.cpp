// Ending an agent: in every state, from any permitted thread, while others are still calling.
#include "AgentFixture.h"
#include "AllocationFailure.h"
#include "TestSupport.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {

using AgentLifecycle = AgentTest;

// Runs `call` and expects it to end well within its limit of 5 s.
template <class Call>
void endsSoon(const Call& call) {
    const auto start = std::chrono::steady_clock::now();
    call();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

void expectReleased(AgentSide& side) {
    EXPECT_FALSE(side.channel.isObserved());
    EXPECT_FALSE(side.machine->isMarked);
    EXPECT_EQ(side.machine->openSegments(), 0);
    EXPECT_EQ(side.machine->peerSegments(), std::set<std::string>{});
}

}  // namespace

TEST(AgentEnd, ReleasesEverythingWhetherTheAgentIsStoppedOrOnlyDestroyed) {
    for (const bool isStopped : {true, false}) {
        const LogCapture log;
        AgentSide side;
        side.connect();
        side.request("CreateStream|Media|500");
        side.request("OpenStream|Basic|500");
        side.channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
        side.channel.deliver(aboutStream(CTL_S_CREATED, "Basic", kWrite));
        side.sentTexts(2);
        side.segment("Media")->setReader(FakeSegment::Reader::IsStuck);
        side.channel.deliver(routed("Media", "stuck"));
        endsSoon([&] { isStopped ? side.agent->stop() : side.agent.reset(); });
        expectReleased(side);
        for (const auto& name : Texts{"Basic", infoInputName()})
            EXPECT_FALSE(side.segment(name)->isObserved()) << name;
        EXPECT_EQ(side.sentTexts(0), isStopped ? Texts{"5"} : Texts{});
        EXPECT_EQ(side.machine->watchesEnded, isStopped ? 1 : 0);
        side.channel.deliver(control(CTL_CONNECT));
        if (isStopped) side.agent->stop();
        EXPECT_EQ(log.count("Destroying Virtual Channel Agent"), 1);
    }
}

TEST(AgentEnd, ReleasesEverythingWhateverThereIsNoMemoryFor) {
    const LogCapture log;
    std::optional<AgentSide> side;
    const auto checkAndPrepare = [&] {
        if (side) expectReleased(*side);
        side.emplace();
        side->connect();
        for (const std::string name : {"Media", "Basic"}) {
            side->channel.deliver(aboutStream(CTL_S_CREATE, name, kRead));
            side->channel.deliver(aboutStream(CTL_S_CREATED, name, kRead));
        }
    };
    EXPECT_GT(failEachAllocation([&] { side->agent->stop(); }, checkAndPrepare), 10);
    expectReleased(*side);
}

TEST(AgentEnd, LeavesAChannelThatComesAtThatMoment) {
    struct Channel : FakeChannel {
        std::function<void()> onObserved;
        void AddObserver(NorvoVirtualChannel::Observer* observer) override {
            if (observer) onObserved();
            FakeChannel::AddObserver(observer);
        }
    } channel;
    AgentSide side;
    std::future<void> stopping;
    channel.onObserved = [&] {
        stopping = std::async(std::launch::async, [&] { side.agent->stop(); });
        stopping.wait_for(std::chrono::milliseconds(100));
    };
    side.agent->SetVirtualChannel(&channel);
    stopping.get();
    EXPECT_FALSE(channel.isObserved());
}

CHILD_ROLE(agentWithoutThreads) {
    const auto machine = std::make_shared<FakeMachine>();
    machine->subscriptionsFail = true;
    std::optional<AgentSide> side;
    withoutNewThreads([&] {
        side.emplace("side", machine);
        side->becomesAvailable();
        side->channel.deliver(control(CTL_CONNECT_READY));
        side->channel.deliver(control(CTL_CONNECTED));
    });
    const auto sent = side->channel.takeSent();
    const bool isRefused = !side->agent->IsConnected() && sent.size() == 2 &&
                           sent[0].text() == "2" && sent[1].text() == "5";
    machine->subscriptionsFail = false;
    side->channel.deliver(control(CTL_CONNECT_READY));
    const bool isConnected = side->agent->IsConnected() && side->sentTexts(1)[0][0] == '4';
    side->forgetNotifications(5);
    side->request("RequestEnviromentType");
    const bool isServed = side->wasTold("EnviromentType|citrix");
    return (isRefused ? 0 : 1) + (isConnected ? 0 : 2) + (isServed ? 0 : 4);
}

TEST(AgentStartAcrossProcesses, WhatFoundNoThreadStartsLater) {
    if (!testsupport::canRefuseThreads()) GTEST_SKIP() << "needs glibc";
    EXPECT_EQ(ChildProcess("agentWithoutThreads", {}).wait(), 0);
}

TEST_F(AgentLifecycle, StopEndsWhileTheChannelIsBusyWithItsRunner) {
    m_side.connect();
    const auto info = m_side.segment(infoOutputName());
    EXPECT_TRUE(m_side.wasTold("ChannelUp"));
    std::thread reader;
    m_channel.onCall = [&](const std::string& call) {
        if (call != "down") return;
        std::thread([&] { m_channel.deliver(control(CTL_CONNECT)); }).join();
        info->setReader(FakeSegment::Reader::IsStuck);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        reader = std::thread([&, before = m_side.machine->pauses.load()] {
            EXPECT_TRUE(eventually([&] { return m_side.machine->pauses > before; }));
            info->setReader(FakeSegment::Reader::Takes);
        });
    };
    endsSoon([&] { m_side.agent->stop(); });
    reader.join();
    EXPECT_EQ(m_side.sentTexts(1), Texts{"5"});  // and no reply to the handshake
    EXPECT_TRUE(m_side.wasTold("ChannelDown"));
}

TEST_F(AgentLifecycle, StopEndsWhileTheReceivePathIsBlocked) {
    std::atomic<bool> blocked{false};
    m_side.machine->onSegmentSetUp = [&](FakeSegment& segment) {
        if (segment.getName() != "Media") return;
        blocked = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    };
    std::thread host([&] { m_channel.deliver(aboutStream(CTL_S_CREATE, "Media", kRead)); });
    EXPECT_TRUE(eventually([&] { return blocked.load(); }));
    endsSoon([&] { m_side.agent->stop(); });
    host.join();
    EXPECT_FALSE(m_side.segment("Media")->isOpen());
}

// They are sent 5 ms apart, but no host thread waits for that.
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
    std::erase_if(announced, [](const auto& text) {
        return text[0] == '4';
    });  // CTL_CONNECTED, which does not wait for them
    EXPECT_EQ(announced.size(), kStreams);
    EXPECT_TRUE(std::is_sorted(announced.begin(), announced.end()));
    EXPECT_TRUE(
        eventually([&] { return m_side.machine->pausedMs == 5 * static_cast<int>(kStreams); }));
}

TEST_F(AgentLifecycle, AllStreamsAreClosedWithinTheTimeOfOne) {
    m_side.connect();
    m_side.machine->closeTakes = std::chrono::milliseconds(200);
    for (int i = 0; i < 50; ++i) {
        m_channel.deliver(aboutStream(CTL_S_CREATE, std::to_string(i), i % 2 ? kRead : kWrite));
    }
    EXPECT_EQ(m_side.machine->peerSegments().size(), 50U);
    EXPECT_TRUE(m_side.machine->isMarked);
    endsSoon([&] { m_side.agent->stop(); });
    expectReleased(m_side);
}

TEST_F(AgentLifecycle, HostCallsFromInsideAQuestionAreTaken) {
    m_channel.onCall = [&](const std::string& call) {
        if (call != "question") return;
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

// Concurrent calls from host threads and local processes, and finally stop() or the destructor.
TEST_F(AgentLifecycle, AnAgentCanBeEndedAtAnyMoment) {
    for (int round = 0; round < rounds(60); ++round) {
        AgentSide side;
        std::atomic<bool> goOn{true};
        const auto hostCalls = [&](int i) {
            const std::string name = "s" + std::to_string(i % 5);
            side.channel.deliver(control(i % 3 ? CTL_CONNECTED : CTL_CONNECT_READY));
            side.channel.deliver(routed(name, "data"));
            side.channel.deliver(aboutStream(CTL_S_CREATED, name, kRead));
            if (i % 7 == 0) side.channel.deliver(control(CTL_DISCONNECT));
            side.channel.takeSent();
        };
        const auto channelComesAndGoes = [&](int i) { side.becomesAvailable(i % 2 == 0); };
        const auto localProcessAsks = [&](int i) {
            side.request("OpenStream|r" + std::to_string(i % 5) + "|10");
            side.request("RequestNotifyStream");
            side.request("SetHVDClientInfo|1|2");
            std::this_thread::yield();
        };
        const std::function<void(int)> all[] = {hostCalls, channelComesAndGoes, localProcessAsks};
        std::thread callers([&] {
            onThreads(3, [&](int number) {
                for (int i = 0; goOn; ++i) all[number](i);
            });
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 8));
        endsSoon([&] {
            if (round % 2) side.agent->stop();
            side.agent.reset();
        });
        goOn = false;
        callers.join();
        expectReleased(side);
    }
}
