// Streams: who asks for them, when they run, and the data that passes through them.
#include <future>

#include "AgentFixture.h"
#include "SpareStrings.h"
#include "StreamRules.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {

// A connected agent whose notifications of the connection have passed.
class AgentStream : public AgentTest {
protected:
    AgentStream() {
        m_side.connect();
        m_side.forgetNotifications(5);
    }
    // A running stream that the agent writes (or reads) for a local process.
    std::shared_ptr<FakeSegment> runningStream(const std::string& name, bool agentReads) {
        m_channel.deliver(aboutStream(CTL_S_CREATE, name, agentReads ? kWrite : kRead));
        m_channel.deliver(aboutStream(CTL_S_CREATED, name, agentReads ? kWrite : kRead));
        m_side.sentTexts(1);
        return m_side.segment(name);
    }
    static void expectWritten(const FakeSegment& segment, const Texts& expected) {
        eventually([&] { return segment.written().size() >= expected.size(); });
        EXPECT_EQ(segment.written(), expected);
    }
};

}  // namespace

TEST_F(AgentStream, ALocalProcessAsksForAStreamAndTheFarSideConfirmsIt) {
    m_side.request("CreateStream|Media|500");
    const auto segment = m_side.segment("Media");
    ASSERT_TRUE(segment);
    EXPECT_EQ(segment->text(), "created plain 500");
    m_side.request("OpenStream|Media|900");  // there is one, whatever its type
    EXPECT_EQ(m_side.sentTexts(2), (Texts{"6 Media 1 500", "6 Media 1 500"}));

    m_channel.deliver(routed("Media", "before it runs"));
    EXPECT_EQ(segment->written(), Texts{});
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    m_channel.deliver(routed("Media", "while it runs"));
    expectWritten(*segment, {"before it runs", "while it runs"});

    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    EXPECT_EQ(m_side.segment(infoOutputName())->written(), Texts{});
    m_side.request("OpenStream|Media|900");
    EXPECT_EQ(m_side.notifications(1), Texts{"StreamUp|Media|READ"});
}

TEST_F(AgentStream, TheFarSideAsksForBothDirections) {
    m_channel.deliver(aboutStream(CTL_S_CREATE, "Media", kWrite, 700));
    m_channel.deliver(aboutStream(CTL_S_CREATE, "Basic", kRead, 800));
    EXPECT_EQ(m_side.sentTexts(2), (Texts{"6 Media 0 700", "6 Basic 1 800"}));
    EXPECT_EQ(m_side.segment("Media")->text(), "opened plain 700");
    EXPECT_EQ(m_side.segment("Basic")->text(), "created plain 800");
    EXPECT_FALSE(m_side.segment("Media")->isObserved());

    m_channel.deliver(aboutStream(CTL_S_CREATE, "Media", kWrite, 700));
    EXPECT_EQ(m_side.sentTexts(1), Texts{"7 Media 0 700"});
    EXPECT_TRUE(m_side.segment("Media")->isObserved());

    m_channel.deliver(aboutStream(CTL_S_CREATE, "Generic", 2));
    EXPECT_FALSE(m_side.segment("Generic"));
}

TEST_F(AgentStream, TwoAgentsPairAStreamWhoeverAsks) {
    AgentSide other("other");
    m_channel.deliver(control(CTL_DISCONNECT));
    m_side.becomesAvailable();
    const auto bothRun = [&](const std::string& name, AgentSide& writer, AgentSide& reader) {
        return exchangeUntil(m_channel, other.channel, [&] {
            const auto from = reader.segment(name);
            const auto to = writer.segment(name);
            if (!from || !to || !from->isObserved()) return false;
            from->localProcessWrites("hello");
            return !to->written().empty();
        });
    };
    ASSERT_TRUE(exchangeUntil(m_channel, other.channel, [&] {
        return m_side.agent->IsConnected() && other.agent->IsConnected();
    }));
    m_side.request("OpenStream|Media|500");  // asked for on the reading side
    EXPECT_TRUE(bothRun("Media", other, m_side));
    other.request("CreateStream|Basic|500");  // on the writing side
    EXPECT_TRUE(bothRun("Basic", other, m_side));
    m_side.request("CreateStream|Generic|500");  // on both at once
    other.request("OpenStream|Generic|500");
    EXPECT_TRUE(bothRun("Generic", m_side, other));
    EXPECT_FALSE(m_log.contains("Failed to Create Stream."));
}

TEST_F(AgentStream, MessagesAboutUnknownStreamsMakeThemOrAreAnsweredWithAnError) {
    m_channel.deliver(routed("Media", "first"));
    EXPECT_EQ(m_side.sentTexts(1), Texts{"6 Media 1 1000"});
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    expectWritten(*m_side.segment("Media"), {"first"});

    m_channel.deliver(aboutStream(CTL_S_CREATED, "Nobody", kRead, 7));
    m_channel.deliver(routed(infoOutputName() + "/", "x"));
    EXPECT_EQ(m_side.sentTexts(2), (Texts{"10 Nobody 1 7", "10 " + infoOutputName() + "/ 1 1000"}));
}

TEST_F(AgentStream, LocalDataTravelsWithItsStreamAndPriority) {
    const std::pair<std::string, bool> streams[] = {
        {"Media", false}, {"LogCollection", true}, {"my upgrade 2", true}, {"Upgrade", false}};
    for (const auto& [name, low] : streams) {
        SCOPED_TRACE(name);
        runningStream(name, true)->localProcessWrites("payload of " + name);
        const auto sent = takeOne();
        EXPECT_EQ(sent.lowPriority, low);
        EXPECT_EQ(sent.bytes, wireOf(routed(name, "payload of " + name)));
    }
}

TEST_F(AgentStream, IsNotReadWhileNobodyIsThereToSendTo) {
    const auto segment = runningStream("Media", true);
    const auto read = [&](const char* text) {
        return std::async(std::launch::async, [=] { segment->localProcessWrites(text); });
    };
    const auto isOver = [](std::future<void>& reading) {
        return reading.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready;
    };
    m_channel.deliver(control(CTL_DISCONNECT));
    auto inHand = read("in hand");
    EXPECT_FALSE(isOver(inHand));

    std::atomic<int> refused{0};
    m_channel.onStreamData = [&] { return refused++ > 0; };
    m_side.connect();
    EXPECT_TRUE(eventually([&] { return refused == 1; }));
    EXPECT_FALSE(isOver(inHand));  // not tried again in the same connection
    EXPECT_EQ(refused, 1);
    m_channel.deliver(control(CTL_DISCONNECT));
    m_channel.deliver(control(CTL_CONNECTED));
    inHand.get();
    const auto goesOut = [&] {
        for (const auto& sent : m_channel.takeSent()) {
            if (sent.bytes == wireOf(routed("Media", "in hand"))) return true;
        }
        return false;
    };
    EXPECT_TRUE(goesOut());

    m_channel.deliver(control(CTL_DISCONNECT));
    auto waiting = read("never sent");
    EXPECT_FALSE(isOver(waiting));
    m_side.agent->stop();
    waiting.get();
}

TEST_F(AgentStream, AFailedSegmentIsReportedAndSetUpAsSoonAsThatIsPossible) {
    m_side.machine->segmentsFail = true;
    m_side.request("CreateStream|Media|500");
    m_side.request("OpenStream|Basic|500");
    EXPECT_EQ(m_side.sentTexts(2), (Texts{"6 Media 1 500", "6 Basic 0 500"}));
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Basic", kWrite));
    m_channel.deliver(routed("Media", "for later"));
    EXPECT_TRUE(eventually([&] { return m_log.contains("Bytes not delivered in stream: Media"); }));
    m_side.machine->segmentsFail = false;
    EXPECT_TRUE(eventually([&] { return m_side.machine->pass(1000) && m_side.segment("Basic"); }));
    expectWritten(*m_side.segment("Media"), {"for later"});
    EXPECT_TRUE(eventually([&] { return m_side.segment("Basic")->isObserved(); }));
    m_channel.takeSent();
    m_side.segment("Basic")->localProcessWrites("payload");
    EXPECT_EQ(takeOne().message().getMessageType(), CTL_S_ROUTE);
    m_side.agent->stop();
    EXPECT_EQ(m_side.machine->openSegments(), 0);
}

TEST_F(AgentStream, WhatNobodyUsesIsFreedAfterAMinute) {
    const auto& machine = m_side.machine;
    runningStream("idle", true);
    runningStream("waits", false)->setReader(FakeSegment::Reader::Refuses);
    m_channel.deliver(routed("waits", "for a reader"));
    runningStream("open", false);
    m_side.request("CreateStream|closed|500");  // by a process that is seen to have it open
    machine->setOpenElsewhere({"open"});
    m_side.request("CreateStream|foreign|500");
    m_side.request("CreateStream|closed|500");
    ASSERT_TRUE(machine->pass(500));
    ASSERT_TRUE(machine->pass(59'000));
    const auto isOpen = [&](const std::string& name) { return m_side.segment(name)->isOpen(); };
    EXPECT_TRUE(isOpen("idle"));
    runningStream("used again", true)->localProcessWrites("x");
    ASSERT_TRUE(machine->pass(2'000));
    EXPECT_FALSE(isOpen("idle"));
    EXPECT_FALSE(isOpen("closed"));
    for (const auto* kept : {"waits", "open", "foreign", "used again"}) EXPECT_TRUE(isOpen(kept));
    EXPECT_EQ(machine->peerSegments(), (std::set<std::string>{"open", "used again", "waits"}));

    m_channel.deliver(routed("idle", "made anew"));
    EXPECT_TRUE(isOpen("idle"));
    m_side.agent->stop();
    EXPECT_EQ(machine->peerSegments(), std::set<std::string>{});
}

TEST_F(AgentStream, ARefusedMessageIsTriedAgainEveryFiveMilliseconds) {
    const auto media = runningStream("Media", false);
    media->setReader(FakeSegment::Reader::Refuses);
    const int pausesBefore = m_side.machine->pauses;
    const int pausedBefore = m_side.machine->pausedMs;
    m_channel.deliver(routed("Media", "one"));
    m_channel.deliver(routed("Media", "two"));
    EXPECT_TRUE(eventually([&] { return media->failedWrites() >= 5; }));
    media->setReader(FakeSegment::Reader::Takes);
    expectWritten(*media, {"one", "two"});
    EXPECT_EQ(m_side.machine->pausedMs - pausedBefore, 5 * (m_side.machine->pauses - pausesBefore));
}

TEST_F(AgentStream, ANotificationThatCannotBeDeliveredIsDropped) {
    const auto info = m_side.segment(infoOutputName());
    info->setReader(FakeSegment::Reader::Refuses);
    m_side.request("RequestVCProcessId");
    EXPECT_TRUE(eventually([&] { return info->failedWrites() == 1; }));
    info->setReader(FakeSegment::Reader::Takes);
    m_side.request("RequestEnviromentType");
    EXPECT_EQ(m_side.notifications(1), Texts{"EnviromentType|citrix"});
    EXPECT_TRUE(m_log.contains("Bytes not delivered in stream: " + infoOutputName() +
                               ", those bytes will not be written again."));
}

TEST_F(AgentStream, FullQueuesLoseTheirOldestMessages) {
    m_channel.deliver(control(CTL_DISCONNECT));  // what is queued now waits for a connection
    for (int i = 0; i < 1003; ++i) {
        m_channel.deliver(aboutStream(CTL_S_CREATED, std::to_string(i), kRead));
    }
    EXPECT_TRUE(
        m_log.contains("Sending buffer to virtual channel full, removing the oldest message to "
                       "make space for a new one."));
    m_channel.deliver(control(CTL_CONNECTED));
    const auto sent = m_side.sentTexts(1001);
    ASSERT_EQ(sent.size(), 1001U);
    EXPECT_EQ(sent.front(), "10 2 1 1000");
    EXPECT_EQ(sent.back(), "10 1002 1 1000");

    m_side.request("CreateStream|Media|500");
    for (int i = 0; i < 1003; ++i) m_channel.deliver(routed("Media", std::to_string(i)));
    EXPECT_EQ(m_log.count("Sending buffer full, removing the oldest message to make space for a "
                          "new one, stream name: Media"),
              1);  // summed up
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    const auto segment = m_side.segment("Media");
    EXPECT_TRUE(eventually([&] { return segment->written().size() == 1001; }));
    EXPECT_EQ(segment->written().front(), "2");
    EXPECT_EQ(segment->written().back(), "1002");
}

TEST_F(AgentStream, TheQueueOfAStreamIsBoundedInBytesToo) {
    m_side.request("CreateStream|Media|500");
    const std::string moreThanHalf(kMaxQueuedBytes / 2 + 1, 'l');
    for (const auto& message : {std::string("first"), moreThanHalf, moreThanHalf}) {
        m_channel.deliver(routed("Media", message));
    }
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    const auto segment = m_side.segment("Media");
    EXPECT_TRUE(eventually([&] { return segment->written().size() == 1; }));
    EXPECT_EQ(segment->written().front().size(), moreThanHalf.size());
}

// 60 local processes that start at once ask for all streams each.
TEST_F(AgentStream, ManyRollCallsAreAnsweredTogether) {
    for (int i = 0; i < 60; ++i) runningStream("s" + std::to_string(i), false);
    const auto info = m_side.segment(infoOutputName());
    info->setReader(FakeSegment::Reader::IsStuck);
    for (int i = 0; i < 60; ++i) {
        m_side.request("RequestNotifyStream");
        m_side.request("RequestVCProcessId");
    }
    runningStream("late", false);
    m_side.request("RequestNotifyStream");  // tells of it too
    m_channel.deliver(control(CTL_DISCONNECT));
    m_channel.deliver(control(CTL_CONNECTED));
    m_side.request("RequestNotifyStream");  // who has just lost the channel knows of no stream
    m_side.request("IsMultiSession");
    info->setReader(FakeSegment::Reader::Takes);
    ASSERT_TRUE(m_side.wasTold("IsMultiSession|0"));
    const auto told = info->written();
    const auto up = std::find(told.begin(), told.end(), "ChannelUp");
    EXPECT_EQ(std::count(told.begin(), up, "StreamUp|late|READ"), 1);
    EXPECT_EQ(std::count(up, told.end(), "StreamUp|late|READ"), 1);
    EXPECT_LE(std::count(told.begin(), told.end(), "StreamUp|s0|READ"), 5);
    EXPECT_FALSE(m_log.contains("Sending buffer full"));
}

TEST_F(AgentStream, NoFloodOfNotificationsHidesAConnectionChange) {
    const auto info = m_side.segment(infoOutputName());
    info->setReader(FakeSegment::Reader::IsStuck);
    m_channel.deliver(control(CTL_DISCONNECT));
    m_channel.deliver(control(CTL_CONNECTED));
    for (int i = 0; i < 2002; ++i) m_side.request("RequestEnviromentType");
    info->setReader(FakeSegment::Reader::Takes);
    EXPECT_TRUE(m_side.wasTold("ChannelDown"));
    EXPECT_TRUE(m_side.wasTold("ChannelUp"));
}

TEST_F(AgentStream, AnUnconfirmedStreamIsAskedForAgainEveryThreeSeconds) {
    m_side.request("CreateStream|Media|500");
    m_side.request("CreateStream|Basic|600");
    m_side.sentTexts(2);
    ASSERT_TRUE(m_side.machine->pass(500));  // never asked for by the check before: due at once
    EXPECT_EQ(m_side.sentTexts(2), (Texts{"6 Basic 1 600", "6 Media 1 500"}));
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Basic", kRead));
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(m_side.machine->pass(500));
    EXPECT_EQ(m_log.count("retry to create stream: "), 2);
    ASSERT_TRUE(m_side.machine->pass(500));
    EXPECT_EQ(m_side.sentTexts(1), Texts{"6 Media 1 500"});

    m_side.machine->clock -= 100'000;  // the wall clock is set back
    ASSERT_TRUE(m_side.machine->pass(500));
    EXPECT_EQ(m_log.count("retry to create stream: Media"), 3);
    EXPECT_EQ(m_log.count("retry to create stream: Basic"), 1);
}

TEST_F(AgentStream, AtMostOneQueuedMessageLeavesAfterADisconnection) {
    std::mutex gate;
    gate.lock();
    m_channel.onSend = [&] { std::lock_guard wait(gate); };
    for (int i = 0; i < 5; ++i) {
        m_channel.deliver(aboutStream(CTL_S_CREATED, std::to_string(i), kRead));
    }
    // The send thread is held in its first message while the connection ends.
    std::thread disconnecting([&] { m_channel.deliver(control(CTL_DISCONNECT)); });
    EXPECT_TRUE(eventually([&] { return !m_side.agent->IsConnected(); }));
    gate.unlock();
    disconnecting.join();
    m_channel.onSend = nullptr;
    EXPECT_EQ(m_channel.takeSent().size(), 1U);
    m_channel.deliver(control(CTL_CONNECTED));
    EXPECT_EQ(m_side.sentTexts(4).size(), 4U);
}

TEST_F(AgentStream, StreamsThatNeverShouldBeMadeAreRefused) {
    const std::string forbidden[] = {"",
                                     "/",
                                     "../x",
                                     "a/b",
                                     std::string("nul\0l", 5),
                                     "line\nbreak",
                                     "\x7F",
                                     std::string(300, 'x'),
                                     infoInputName()};
    const auto before = m_side.machine->segmentCount();
    for (const auto& name : forbidden) {
        for (const auto type : {kRead, kWrite}) {
            m_channel.deliver(aboutStream(CTL_S_CREATE, name, type));
        }
        m_channel.deliver(routed(name, "data"));
    }
    for (const auto size : {0U, kMaxStreamSize + 1, 0xFFFFFFFFU}) {
        m_channel.deliver(aboutStream(CTL_S_CREATE, "Media", kWrite, size));
    }
    EXPECT_EQ(m_side.machine->segmentCount(), before);
    EXPECT_EQ(m_side.segment(infoInputName())->text(), "opened broadcast 10240");

    m_channel.deliver(routed(infoOutputName(), "SessionDown"));
    m_channel.deliver(aboutStream(CTL_S_CREATE, "Basic", kWrite));
    m_channel.deliver(routed("Basic", "for a stream that the agent reads"));
    m_side.request("RequestEnviromentType");
    EXPECT_EQ(m_side.notifications(1), Texts{"EnviromentType|citrix"});

    m_side.request("CreateStream|" + infoOutputName() + "|500");
}

TEST_F(AgentStream, ManyStreamsOfTheFarSideLeaveRoomForThoseOfLocalProcesses) {
    const auto own = m_side.machine->segmentCount();
    const auto ask = [&](const std::string& prefix, int count) {
        for (int i = 0; i < count; ++i) {
            m_channel.deliver(aboutStream(CTL_S_CREATE, prefix + std::to_string(i), kWrite, 1));
        }
        return m_side.machine->segmentCount() - own;
    };
    EXPECT_EQ(ask("s", 2000), kMaxPeerStreams);
    for (int i = 0; i < 2000; ++i) m_side.request("CreateStream|l" + std::to_string(i) + "|1");
    EXPECT_EQ(m_side.machine->segmentCount() - own, kMaxStreams - 1);  // the INFO stream is one too
    m_side.machine->setOpenElsewhere({});
    ASSERT_TRUE(m_side.machine->pass(500));
    ASSERT_TRUE(m_side.machine->pass(60'000));
    EXPECT_EQ(ask("t", 2000), kMaxStreams - 1 + kMaxPeerStreams);
}

TEST_F(AgentStream, LargeStreamsOfTheFarSideLeaveRoomForThoseOfLocalProcesses) {
    for (int i = 0; i < 20; ++i) {
        m_channel.deliver(
            aboutStream(CTL_S_CREATE, "s" + std::to_string(i), kWrite, kMaxStreamSize));
    }
    EXPECT_TRUE(m_log.contains("the far side's streams together are too large"));
    m_side.request("CreateStream|local|" + std::to_string(kMaxStreamSize));
    EXPECT_TRUE(m_side.segment("local"));
    for (int i = 0; i < 20; ++i) {
        m_side.request("CreateStream|l" + std::to_string(i) + "|" + std::to_string(kMaxStreamSize));
    }
    EXPECT_FALSE(m_side.segment("l19"));
}

TEST(SpareStrings, LendMemoryThatWasGivenBackAndKeepNoMoreThanTheyMay) {
    constexpr std::size_t kMoreThanHalf = SpareStrings::kMostBytes / 2 + 1;
    const std::string message(SpareStrings::kSmallest, 'x');
    SpareStrings spares;
    for (const std::size_t capacity : {kMoreThanHalf, kMoreThanHalf, 2 * SpareStrings::kMostBytes})
        spares.giveBack(std::string(capacity, 'y'));

    EXPECT_LT(spares.copyOf("small", 5).capacity(), kMoreThanHalf);
    const std::string first = spares.copyOf(message.data(), message.size());
    EXPECT_EQ(first, message);
    EXPECT_GE(first.capacity(), kMoreThanHalf);
    EXPECT_LT(spares.copyOf(message.data(), message.size()).capacity(), kMoreThanHalf);
}
