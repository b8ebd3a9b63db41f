// Streams: their limits, their ends, and what delays their data.

#include "AgentFixture.h"
#include "StreamRules.h"
#include "TestSupport.h"

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
    EXPECT_THAT(m_side.sentTexts(1), testing::Contains("9 Media 0 1000 first"));

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
    const std::string large(VDIFrameworkCommon::MemoryBlock::kSmallestKept, 'l');
    m_channel.deliver(routed("Basic", large));
    EXPECT_TRUE(eventually([&] { return segment->failedWrites() > 0; }));
    segment->takesAtOnce = true;
    m_channel.deliver(routed("Basic", "third"));
    segment->setReader(FakeSegment::Reader::Takes);
    expectWritten(*segment, {"first", large, "third"});
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

    const auto writtenOf = [&](const std::string& name, std::size_t count) {
        m_channel.deliver(aboutStream(CTL_S_CREATED, name, kRead));
        const auto segment = m_side.segment(name);
        EXPECT_TRUE(eventually([&] { return segment->written().size() == count; }));
        return segment->written();
    };
    m_side.request("CreateStream|Media|500");
    for (int i = 0; i < 1003; ++i) m_channel.deliver(routed("Media", std::to_string(i)));
    EXPECT_EQ(m_log.count("Sending buffer full, removing the oldest message"),
              1);  // repeats are summarised
    const auto written = writtenOf("Media", 1001);
    EXPECT_EQ(written.front(), "2");
    EXPECT_EQ(written.back(), "1002");

    m_side.request("CreateStream|Large|500");
    const std::string moreThanHalf(kMaxQueuedBytes / 2 + 1, 'l');
    for (const auto& message : {std::string("first"), moreThanHalf, moreThanHalf}) {
        m_channel.deliver(routed("Large", message));
    }
    EXPECT_EQ(writtenOf("Large", 1).front().size(), moreThanHalf.size());

    for (const std::string name : {"l1", "l2", "l3", "l4"}) {
        m_side.request("CreateStream|" + name + "|500");
        m_channel.deliver(routed(name, moreThanHalf));
    }
    EXPECT_EQ(m_log.count("Too much waits for local processes, a message of"), 1);
    m_channel.deliver(routed("l4", "short"));
    EXPECT_EQ(writtenOf("l4", 1).back().size(), 5U);
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
    EXPECT_FALSE(m_side.machine->isMarked);
    m_channel.onCall = [](const std::string&) {};
    EXPECT_EQ(m_channel.takeSent().size(), 1U);
    m_channel.deliver(control(CTL_CONNECTED));
    EXPECT_EQ(m_side.sentTexts(4).size(), 4U);
}

TEST_F(AgentStream, HasASmallerSegmentWhereTheOneThatWasAskedForIsImpossible) {
    m_side.machine->largestSegment = 65536;
    m_channel.deliver(aboutStream(CTL_S_CREATE, "Large", kRead, 1 << 20));
    EXPECT_THAT(m_side.segment("Large")->text(), testing::HasSubstr(" plain 65536"));
}

TEST_F(AgentStream, StreamsThatNeverShouldBeMadeAreRefused) {
    const std::string nul("nul\0l", 5);
    const std::string tooLong(300, 'x');
    const Texts forbidden{"",     "/",     "../x",         "a/b", nul, "line\nbreak",
                          "\x7F", tooLong, infoInputName()};
    const auto before = m_side.machine->openSegments();
    for (const auto& name : forbidden) {
        for (const auto type : {kRead, kWrite}) {
            m_channel.deliver(aboutStream(CTL_S_CREATE, name, type));
        }
        m_channel.deliver(routed(name, "data"));
    }
    for (const auto size : {0U, kMaxStreamSize + 1, 0xFFFFFFFFU}) {
        m_channel.deliver(aboutStream(CTL_S_CREATE, "Media", kWrite, size));
    }
    EXPECT_EQ(m_side.machine->openSegments(), before);
    EXPECT_EQ(m_side.segment(infoInputName())->text(), "opened broadcast 10240");
    m_channel.deliver(routed(infoOutputName(), "SessionDown"));
    m_side.request("RequestEnviromentType");
    EXPECT_EQ(m_side.notifications(1), Texts{"EnviromentType|citrix"});
}

TEST_F(AgentStream, IsNotFreedWhenAMessageComesAtThatMoment) {
    const auto written = runningStream("Media", false);
    const auto read = runningStream("Basic", true);
    written->setReader(FakeSegment::Reader::Refuses);
    m_side.machine->setOpenElsewhere({});
    ASSERT_TRUE(m_side.machine->pass(500));
    ASSERT_TRUE(m_side.machine->pass(60'000));
    std::future<void> writing;
    std::set<std::string> done;
    m_side.machine->onLookedForUsers = [&](const std::string& name) {
        if (!done.insert(name).second) return;
        if (name == "Media") {
            auto host = std::async(std::launch::async,
                                   [&] { m_channel.deliver(routed(name, "from the peer")); });
            return host.get();
        }
        m_channel.refusals = 1;
        writing = std::async(std::launch::async, [&] { read->localProcessWrites("to the peer"); });
        EXPECT_TRUE(eventually([&] { return m_channel.refusals == 0; }));
    };
    ASSERT_TRUE(m_side.machine->pass(500));
    written->setReader(FakeSegment::Reader::Takes);
    expectWritten(*written, {"from the peer"});
    m_channel.deliver(control(CTL_DISCONNECT));
    m_channel.deliver(control(CTL_CONNECTED));
    writing.get();
    EXPECT_THAT(m_side.sentTexts(1), testing::Contains("9 Basic 0 1000 to the peer"));
}

TEST_F(AgentStream, ManyOrLargeStreamsOfTheFarSideLeaveRoomForThoseOfLocalProcesses) {
    const int own = m_side.machine->openSegments();
    // The number of segments after both sides have requested `count` streams each.
    const auto askFor = [&](int count, unsigned int size) {
        std::vector<std::uint64_t> made;
        for (const bool isFarSide : {true, false}) {
            for (int i = 0; i < count; ++i) {
                const std::string name = (isFarSide ? "f" : "l") + std::to_string(i);
                if (isFarSide) {
                    m_channel.deliver(aboutStream(CTL_S_CREATE, name, kWrite, size));
                } else {
                    m_side.request("CreateStream|" + name + "|" + std::to_string(size));
                }
            }
            made.push_back(static_cast<std::uint64_t>(m_side.machine->openSegments() - own));
        }
        return made;
    };
    using Counts = std::vector<std::uint64_t>;
    EXPECT_EQ(askFor(2000, 1), (Counts{kMaxPeerStreams, kMaxStreams - 1}));  // one is for INFO
    m_side.machine->setOpenElsewhere({});
    ASSERT_TRUE(m_side.machine->pass(500));
    ASSERT_TRUE(m_side.machine->pass(60'000));
    ASSERT_TRUE(m_side.machine->pass(500));
    EXPECT_EQ(m_side.machine->openSegments(), own);
    EXPECT_EQ(m_side.machine->peerSegments(), std::set<std::string>{});
    EXPECT_EQ(askFor(20, kMaxStreamSize), (Counts{kMaxPeerTotalSize / kMaxStreamSize,
                                                  kMaxTotalStreamSize / kMaxStreamSize - 1}));

    // Without a connection, unused streams make room when that is needed. Of a local one nobody
    // knows whether it is.
    m_channel.deliver(control(CTL_DISCONNECT));
    const std::string another = "CreateStream|another|" + std::to_string(kMaxStreamSize);
    for (const int ms : {0, 60'000, 100}) {
        m_side.machine->clock += static_cast<std::uint64_t>(ms);
        m_side.request(another);
    }
    EXPECT_EQ(m_side.machine->openSegments(), own + 2);
}
