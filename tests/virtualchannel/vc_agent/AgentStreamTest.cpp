// Streams: their limits, their ends, and what delays their data.
#include <future>

#include "AgentFixture.h"
#include "SpareStrings.h"
#include "StreamRules.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {

// A connected agent, after its notifications of the connection.
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

TEST(AgentPair, AgentsThatConnectAtOncePairAStreamWhoeverAsks) {
    const LogCapture log;
    AgentSide near("near");
    AgentSide far("far");
    const auto exchangeUntil = [&](const auto& predicate) {
        return eventually([&] {
            for (const auto& sent : near.channel.takeSent()) far.channel.deliver(sent.bytes);
            for (const auto& sent : far.channel.takeSent()) near.channel.deliver(sent.bytes);
            return predicate();
        });
    };
    const auto runs = [&](const std::string& name, AgentSide& writer, AgentSide& reader) {
        return exchangeUntil([&] {
            const auto from = reader.segment(name);
            const auto to = writer.segment(name);
            if (!from || !to || !from->isObserved()) return false;
            from->localProcessWrites("hello");
            return !to->written().empty();
        });
    };
    near.becomesAvailable();
    far.becomesAvailable();
    ASSERT_TRUE(exchangeUntil([&] {
        return near.agent->IsConnected() && far.agent->IsConnected() &&
               near.channel.sentCount() + far.channel.sentCount() == 0;
    }));
    near.request("OpenStream|Media|500");  // requested on the reading side
    EXPECT_TRUE(runs("Media", far, near));
    far.request("CreateStream|Basic|500");  // on the writing side
    EXPECT_TRUE(runs("Basic", far, near));
    near.request("CreateStream|Generic|500");  // on both at once
    far.request("OpenStream|Generic|500");
    EXPECT_TRUE(runs("Generic", near, far));
    EXPECT_FALSE(log.contains("Failed to Create Stream."));
}

TEST_F(AgentStream, IsNotReadWhileNobodyIsThereToSendTo) {
    const auto segment = runningStream("Media", true);
    const auto localProcessWrites = [&](const char* text) {
        return std::async(std::launch::async, [=] { segment->localProcessWrites(text); });
    };
    const auto isTaken = [](std::future<void>& writing) {
        return writing.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready;
    };
    m_channel.deliver(control(CTL_DISCONNECT));
    auto first = localProcessWrites("first");
    EXPECT_FALSE(isTaken(first));
    m_channel.refusals = 1;
    m_side.connect();
    EXPECT_TRUE(eventually([&] { return m_channel.refusals == 0; }));
    EXPECT_FALSE(isTaken(first));  // not tried again in the same connection
    m_channel.deliver(control(CTL_DISCONNECT));
    m_channel.takeSent();
    m_channel.deliver(control(CTL_CONNECTED));
    first.get();
    const std::string sent = wireOf(routed("Media", "first"));
    const auto all = m_channel.takeSent();
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](auto& s) { return s.bytes == sent; }));

    m_channel.deliver(control(CTL_DISCONNECT));
    auto neverSent = localProcessWrites("never sent");
    EXPECT_FALSE(isTaken(neverSent));
    m_side.agent->stop();
    neverSent.get();
}

TEST_F(AgentStream, WritesAtOnceWhatNothingWaitsAheadOf) {
    const auto segment = runningStream("Basic", false);
    segment->takesAtOnce = true;
    m_channel.deliver(routed("Basic", "first"));
    EXPECT_EQ(segment->written(), Texts{"first"});
    segment->takesAtOnce = false;
    segment->setReader(FakeSegment::Reader::Refuses);
    m_channel.deliver(routed("Basic", "second"));
    EXPECT_TRUE(eventually([&] { return segment->failedWrites() > 0; }));
    segment->takesAtOnce = true;
    m_channel.deliver(routed("Basic", "third"));
    segment->setReader(FakeSegment::Reader::Takes);
    expectWritten(*segment, {"first", "second", "third"});
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
    m_side.request("CreateStream|closed|500");  // by a process seen to have it open
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

TEST_F(AgentStream,
       ARefusedMessageIsTriedAgainEveryFiveMillisecondsAndARefusedNotificationDropped) {
    const auto media = runningStream("Media", false);
    const auto info = m_side.segment(infoOutputName());
    for (const auto& segment : {media, info}) segment->setReader(FakeSegment::Reader::Refuses);
    m_side.request("RequestVCProcessId");
    EXPECT_TRUE(eventually([&] { return info->failedWrites() == 1; }));
    EXPECT_EQ(m_side.machine->pauses, 0);
    m_channel.deliver(routed("Media", "one"));
    m_channel.deliver(routed("Media", "two"));
    EXPECT_TRUE(eventually([&] { return media->failedWrites() >= 5; }));
    for (const auto& segment : {media, info}) segment->setReader(FakeSegment::Reader::Takes);
    expectWritten(*media, {"one", "two"});
    EXPECT_EQ(m_side.machine->pausedMs, 5 * m_side.machine->pauses);
    m_side.request("RequestEnviromentType");
    EXPECT_EQ(m_side.notifications(1), Texts{"EnviromentType|citrix"});
    EXPECT_TRUE(m_log.contains("Bytes not delivered in stream: " + infoOutputName() +
                               ", those bytes will not be written again."));
}

TEST_F(AgentStream, FullQueuesLoseTheirOldestMessages) {
    m_channel.deliver(control(CTL_DISCONNECT));  // from now on messages wait for a connection
    for (int i = 0; i < 1003; ++i) {
        m_channel.deliver(aboutStream(CTL_S_CREATED, std::to_string(i), kRead));
    }
    EXPECT_TRUE(m_log.contains("Sending buffer to virtual channel full, removing the oldest"));
    m_channel.deliver(control(CTL_CONNECTED));
    const auto sent = m_side.sentTexts(1001);
    ASSERT_EQ(sent.size(), 1001U);
    EXPECT_EQ(sent.front(), "10 2 1 1000");
    EXPECT_EQ(sent.back(), "10 1002 1 1000");

    m_side.request("CreateStream|Media|500");
    for (int i = 0; i < 1003; ++i) m_channel.deliver(routed("Media", std::to_string(i)));
    EXPECT_EQ(m_log.count("Sending buffer full, removing the oldest message"),
              1);  // repeats are summarised
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

// 60 local processes start at once, and each requests all streams.
TEST_F(AgentStream, ManyRollCallsAreAnsweredTogether) {
    for (int i = 0; i < 60; ++i) runningStream("s" + std::to_string(i), false);
    const auto info = m_side.segment(infoOutputName());
    info->setReader(FakeSegment::Reader::IsStuck);
    for (int i = 0; i < 60; ++i) {
        m_side.request("RequestNotifyStream");
        m_side.request("RequestVCProcessId");
    }
    runningStream("late", false);
    m_side.request("RequestNotifyStream");  // includes it
    m_channel.deliver(control(CTL_DISCONNECT));
    m_channel.deliver(control(CTL_CONNECTED));
    m_side.request(
        "RequestNotifyStream");  // a process that has just lost the channel knows no streams
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

TEST_F(AgentStream, AtMostOneQueuedMessageLeavesAfterADisconnection) {
    std::mutex gate;
    gate.lock();
    m_channel.onCall = [&](const std::string& call) {
        if (call != "send") return;
        std::lock_guard wait(gate);
    };
    for (int i = 0; i < 5; ++i) {
        m_channel.deliver(aboutStream(CTL_S_CREATED, std::to_string(i), kRead));
    }
    // The send thread is held up in its first message while the connection ends.
    std::thread disconnecting([&] { m_channel.deliver(control(CTL_DISCONNECT)); });
    EXPECT_TRUE(eventually([&] { return !m_side.agent->IsConnected(); }));
    gate.unlock();
    disconnecting.join();
    m_channel.onCall = [](const std::string&) {};
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
    m_side.request("RequestEnviromentType");
    EXPECT_EQ(m_side.notifications(1), Texts{"EnviromentType|citrix"});
}

TEST_F(AgentStream, ManyOrLargeStreamsOfTheFarSideLeaveRoomForThoseOfLocalProcesses) {
    const auto own = m_side.machine->segmentCount();
    // The number of segments after both sides have requested `count` streams each.
    const auto askFor = [&](int count, unsigned int size) {
        std::vector<std::size_t> made;
        for (const bool isFarSide : {true, false}) {
            for (int i = 0; i < count; ++i) {
                const std::string name = (isFarSide ? "f" : "l") + std::to_string(i);
                if (isFarSide) {
                    m_channel.deliver(aboutStream(CTL_S_CREATE, name, kWrite, size));
                } else {
                    m_side.request("CreateStream|" + name + "|" + std::to_string(size));
                }
            }
            made.push_back(static_cast<std::size_t>(m_side.machine->openSegments()) - own);
        }
        return made;
    };
    using Counts = std::vector<std::size_t>;
    EXPECT_EQ(askFor(2000, 1), (Counts{kMaxPeerStreams, kMaxStreams - 1}));  // one is for INFO
    m_side.machine->setOpenElsewhere({});
    ASSERT_TRUE(m_side.machine->pass(500));
    ASSERT_TRUE(m_side.machine->pass(60'000));
    EXPECT_EQ(m_side.machine->openSegments(), static_cast<int>(own));
    EXPECT_EQ(askFor(20, kMaxStreamSize), (Counts{kMaxPeerTotalSize / kMaxStreamSize,
                                                  kMaxTotalStreamSize / kMaxStreamSize - 1}));
}

TEST_F(AgentStream, IsFreedWhenItsSegmentWasOpenOnlyAfterTheRequestAndNowIsNot) {
    m_side.machine->setOpenElsewhere({});
    const int own = m_side.machine->openSegments();
    m_side.request("CreateStream|Media|10");
    const auto passMinutes = [this](int count) {
        for (; count > 0; --count) ASSERT_TRUE(m_side.machine->pass(60'000));
    };
    passMinutes(3);
    EXPECT_EQ(m_side.machine->openSegments(), own + 1);
    m_side.machine->setOpenElsewhere({"Media"});
    passMinutes(1);
    m_side.machine->setOpenElsewhere({});
    passMinutes(2);
    EXPECT_EQ(m_side.machine->openSegments(), own);
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
