#include "RequestWriter.h"

#include "FakeAgent.h"
#include "InfoSegments.h"
#include "NamedMutex.h"
#include "PosixSharedMemory.h"
#include "SegmentMapping.h"

namespace {

using namespace testsupport;
using NorvoStreamClient::Clock;
using NorvoStreamClient::RequestWriter;
using Placed = NorvoStreamClient::RequestSlot::Placed;

constexpr char kSegment[] = "RequestTest_Info_STREAM2VC";

// Sends `count` requests and returns how many were taken.
int sendNumbered(const std::string& prefix, int count) {
    useCrewsSegments();
    RequestWriter writer(kSegment);
    int taken = 0;
    for (int i = 0; i < count; ++i)
        taken += writer.send(prefix + std::to_string(i), Clock::now() + 20s);
    return taken;
}

CHILD_ROLE(request_sender) {
    const int count = std::stoi(args.at(1));
    return sendNumbered(args.at(0), count) == count ? 0 : 1;
}

// An agent that opens its segment and takes nothing by itself.
std::shared_ptr<shared_memory::SharedMemoryI> idleAgent() {
    useCrewsSegments();
    auto segment = segmenttest::broadcast();
    EXPECT_TRUE(segment->Open(kSegment, VDIFrameworkCommon::kInfoSegmentSize));
    return segment;
}

CHILD_ROLE(request_reader) {
    const auto segment = idleAgent();
    say("ready");
    hear();
    return 0;
}

TEST(RequestWriterTest, IsTakenByTheAgentThatLivesAndByNobodyElse) {
    useCrewsSegments();
    RequestWriter writer(kSegment);
    EXPECT_FALSE(writer.send("nobody", Clock::now() + 50ms));
    for (const std::string request : {"first", "second"}) {
        FakeAgent agent("RequestTest");
        EXPECT_TRUE(writer.send("", Clock::now() + 20s)) << "a sign of life that nobody hears";
        EXPECT_TRUE(writer.send(request, Clock::now() + 20s));
        EXPECT_TRUE(agent.waitFor(request));
        EXPECT_EQ(agent.countOf("nobody") + agent.countOf("nobody any more") + agent.countOf(""),
                  0);
        EXPECT_EQ(agent.countOf("first"), request == "first" ? 1 : 0);
    }
    EXPECT_FALSE(writer.send("nobody any more", Clock::now() + 50ms));
}

// Neither while the writer looks at the slot, nor after the message of a client that was killed
// before it had reset the count of ready readers: the reader then counts like a newcomer.
TEST(RequestWriterTest, PlacesNothingAgainThatWasTaken) {
    const auto agent = idleAgent();
    shared_memory::SegmentMapping slot;
    ASSERT_TRUE(slot.open(kSegment, VDIFrameworkCommon::kInfoSegmentSize, false));
    NorvoStreamClient::RequestSlot requests;
    ASSERT_TRUE(requests.open(kSegment));
    VDIFrameworkCommon::NamedMutex mutex;
    ASSERT_TRUE(
        mutex.create((std::string(shared_memory::kSegmentObjectPrefix) + kSegment).c_str()));

    Placed placed;
    EXPECT_FALSE(requests.step("first", placed));
    const long first = placed.id;
    ASSERT_TRUE(mutex.lock());
    auto looks = std::async([&] { return requests.step("first", placed); });
    std::this_thread::sleep_for(20ms);  // until it waits for the mutex
    slot.header()->lockWord2 = 1;       // as when a reader has taken it
    ASSERT_TRUE(mutex.unlock());
    EXPECT_TRUE(looks.get() || requests.step("first", placed));
    EXPECT_EQ(placed.id, first);

    EXPECT_EQ(segmenttest::read(*agent), "first");
    ++slot.header()->newMessageId;
    placed = {};
    EXPECT_FALSE(requests.step("second", placed));
    EXPECT_EQ(segmenttest::read(*agent), "second");
    EXPECT_TRUE(requests.step("second", placed));
}

// Neither a reader that comes later, and skips the request, nor one that leaves without it, nor one
// that is going to see a later request has taken it. What was in a removed segment is lost.
TEST(RequestWriterTest, IsTakenOnlyByAReaderThatGotIt) {
    auto busy = idleAgent();
    const std::string object = std::to_string(geteuid()) + "CWVDI_" + kSegment;
    NorvoStreamClient::RequestSlot one, other;
    ASSERT_TRUE(one.open(kSegment) && other.open(kSegment));
    Placed first, second;
    EXPECT_FALSE(one.step("first", first));
    auto next = idleAgent();
    EXPECT_FALSE(other.step("second", second));
    EXPECT_EQ(second.id, 0) << "over a request that nobody has taken";
    busy.reset();
    EXPECT_FALSE(one.step("first", first));
    EXPECT_EQ(segmenttest::read(*next), "first");
    EXPECT_TRUE(one.step("first", first));

    first = {};
    EXPECT_FALSE(one.step("third", first));
    ASSERT_TRUE(eventually([&] { return other.step("second", second) || second.id != 0; }));
    EXPECT_EQ(segmenttest::read(*next), "second");
    EXPECT_FALSE(one.step("third", first)) << "held up until it was given up";
    EXPECT_EQ(segmenttest::read(*next), "third");
    EXPECT_TRUE(one.step("third", first) && other.step("second", second));

    first = {};
    EXPECT_FALSE(one.step("fourth", first));
    next.reset();
    ASSERT_EQ(VDIFrameworkCommon::shm_unlink_mac(object), 0);
    std::this_thread::sleep_for(1ms);  // the object was just looked at
    EXPECT_FALSE(one.step("fourth", first));
    next = idleAgent();
    EXPECT_FALSE(one.step("fourth", first));
    EXPECT_EQ(segmenttest::read(*next), "fourth");
}

TEST(RequestWriterAcrossProcesses, ARequestThatNobodyTakesHoldsUpNoOtherAndArrivesOnce) {
    useCrewsSegments();
    RequestWriter patient(kSegment);
    RequestWriter other(kSegment);
    auto waiting = std::async([&] { return patient.send("patient", Clock::now() + 20s); });
    {
        // Left by an agent that was killed while ready: nobody takes what is placed.
        ReadyChild victim("request_reader");
        victim.killAndWait();
    }
    EXPECT_FALSE(other.send("in vain", Clock::now() + 100ms));
    FakeAgent agent("RequestTest");
    const auto start = Clock::now();
    EXPECT_TRUE(other.send("other", start + 10s));
    EXPECT_LT(Clock::now() - start, 1500ms);
    EXPECT_TRUE(waiting.get());
    EXPECT_TRUE(agent.waitFor("patient"));
    EXPECT_EQ(agent.countOf("patient"), 1);
}

TEST(RequestWriterAcrossProcesses, EveryRequestArrivesOnceWhileOtherClientsAreKilledAtAnyMoment) {
    FakeAgent agent("RequestTest");
    const int count = rounds(100);
    ChildProcess a("request_sender", {"a", std::to_string(count)});
    ChildProcess b("request_sender", {"b", std::to_string(count)});
    RequestWriter writer(kSegment);
    const int victims = rounds(30);
    for (int i = 0; i < victims; ++i) {
        ChildProcess victim("request_sender", {"victim", "1000000"});
        ASSERT_TRUE(agent.waitFor("victim0", i + 1));
        std::this_thread::sleep_for(std::chrono::microseconds(137 * i));
        victim.killAndWait();
        EXPECT_TRUE(writer.send("own" + std::to_string(i), Clock::now() + 10s));
    }
    EXPECT_EQ(a.wait() + b.wait(), 0);
    for (const auto& [prefix, sent] : {std::pair{"a", count}, {"b", count}, {"own", victims}}) {
        for (int i = 0; i < sent; ++i) {
            const std::string request = prefix + std::to_string(i);
            // A request counts as taken a moment before the agent has processed it.
            EXPECT_TRUE(agent.waitFor(request));
            EXPECT_EQ(agent.countOf(request), 1) << request;
        }
    }
}

}  // namespace
