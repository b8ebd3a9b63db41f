// A client with an agent whose INFO side is real and whose streams the test plays.
#include "AllocationFailure.h"
#include "FakeAgent.h"
#include "NorvoStreamClient.h"
#include "PosixSharedMemory.h"
#include "SegmentMapping.h"

namespace {

using namespace testsupport;
using namespace NorvoStreamClient;

constexpr char kName[] = "ClientTest";
constexpr auto kLong = 20s;

class ClientTest : public testing::Test {
protected:
    static Options options() {
        Options plain;
        plain.clientName = kName;
        return plain;
    }
    static Reason reasonOf(const OpenedStream& opened) { return opened.status().reason(); }
    const std::shared_ptr<shared_memory::SharedMemoryI> agentsEnd = segmenttest::plain();
};

TEST_F(ClientTest, AWriteGivesUpInTimeBeforeTheStreamIsUpAndWhenNobodyReads) {
    FakeAgent agent(kName);
    Client client(options());
    ASSERT_TRUE(client.waitUntilConnected(kLong));
    auto stream = client.openStream("CTStuck", Direction::Write, 10);
    EXPECT_EQ(stream->write("early", 5, 1ms).reason(), Reason::NotTakenUp);
    ASSERT_TRUE(agentsEnd->Open("CTStuck", 10));
    agent.raise("CTStuck", "WRITE");
    ASSERT_TRUE(stream->waitUntilUp(kLong));
    EXPECT_TRUE(stream->write("fills it", 8, kLong));
    EXPECT_EQ(stream->flush(1ms).reason(), Reason::Timeout);
    const auto start = Clock::now();
    EXPECT_EQ(stream->write("no room", 7, 50ms).reason(), Reason::Timeout);
    EXPECT_LT(Clock::now() - start, 1500ms);
    unsigned int length = 0;
    EXPECT_EQ(agentsEnd->ReadData(length, 1000), "fills it");
    EXPECT_TRUE(stream->flush(kLong));
}

TEST_F(ClientTest, GivesALargeSegmentToItsFirstStreamsWhereThereIsRoom) {
    Client client(options());
    std::vector<std::shared_ptr<Stream>> streams;
    for (int i = 0; i < 17; ++i)
        streams.push_back(client.openStream("CTMany" + std::to_string(i), Direction::Write));
    const auto capacityOf = [](const char* name) {
        shared_memory::SegmentMapping mapping;
        return mapping.open(name, 1, false) ? mapping.capacity() : 0;
    };
    const bool hasRoom = VDIFrameworkCommon::sharedMemoryRoom() >= 1100ULL << 20;
    EXPECT_EQ(capacityOf("CTMany15"), hasRoom ? 1U << 20 : 65536U);
    EXPECT_EQ(capacityOf("CTMany16"), 65536U);
}

TEST_F(ClientTest, RefusesStreamsThatCannotBe) {
    Client client(options());
    for (const std::string& name : {std::string(), std::string("../x"), std::string(65, 'x'),
                                    std::string("ClientTest_Info_STREAM2VC")})
        EXPECT_EQ(reasonOf(client.openStream(name, Direction::Read)), Reason::InvalidArgument)
            << name;
    EXPECT_EQ(reasonOf(client.openStream("CTSize", Direction::Read, (64u << 20) + 1)),
              Reason::InvalidArgument);
    EXPECT_EQ(reasonOf(client.openStream("CTSize", static_cast<Direction>(7))),
              Reason::InvalidArgument);
    auto first = client.openStream("CTSize", Direction::Read, 10);
    EXPECT_TRUE(first);
    const auto second = client.openStream("CTSize", Direction::Write, 10);
    EXPECT_EQ(reasonOf(second), Reason::AlreadyOpen);
    EXPECT_EQ(second->write("x", 1, 1ms).reason(), Reason::AlreadyOpen);
    first.reset();
    EXPECT_TRUE(client.openStream("CTSize", Direction::Write, 10));
    EXPECT_EQ(
        client.openStream("CTLong", Direction::Write)->write("x", (512U << 20U) + 1, 1ms).reason(),
        Reason::TooLong);
    EXPECT_EQ(client.openStream("CTRead", Direction::Read)->write("x", 1, 1ms).reason(),
              Reason::InvalidArgument);
}

TEST_F(ClientTest, SaysWhyASegmentCannotBeSetUpAndHearsTheAgentOnceItCan) {
    useCrewsSegments();
    auto late = options();
    late.clientName = "CTLate";
    const auto taken = segmenttest::broadcast();
    ASSERT_TRUE(taken->Create("CTLate_Info_VC2STREAM", 10) && agentsEnd->Create("CTSmall", 10));
    const bool grow = VDIFrameworkCommon::setExistingObjectsGrow(false);
    Client client(late);
    const auto stream = client.openStream("CTSmall", Direction::Read, 1'000'000);
    VDIFrameworkCommon::setExistingObjectsGrow(grow);
    EXPECT_EQ(client.status().reason(), Reason::CapacityMismatch);
    EXPECT_EQ(reasonOf(stream), Reason::CapacityMismatch);
    EXPECT_GE(stream.status().existingCapacity(), 10U);
    EXPECT_EQ(stream->write("x", 1, 1ms).reason(), Reason::CapacityMismatch);
    taken->Close();
    FakeAgent agent("CTLate");
    EXPECT_TRUE(client.waitUntilConnected(kLong));
    EXPECT_TRUE(eventually([&] { return client.isListening(); }));
}

TEST_F(ClientTest, ASlowCallbackHoldsUpNobodyAndIsToldOfTheLastChangeOfTheConnection) {
    FakeAgent agent(kName);
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<int> told{0};
    std::atomic<bool> connected{true};
    auto watching = options();
    watching.onNotification = [&](const Notification&) {
        released.wait_for(kLong);
        ++told;
        throw std::runtime_error("a callback's own fault");
    };
    watching.onConnectionChange = [&](bool is) { connected = is; };
    Client client(watching);
    ASSERT_TRUE(client.waitUntilConnected(kLong));
    for (int i = 0; i < 71; ++i) agent.notify({i % 2 == 0 ? "ChannelDown" : "ChannelUp"});
    ASSERT_TRUE(eventually([&] { return !client.isConnected(); }));
    for (int i = 0; i < rounds(1100); ++i) agent.notify({"SessionUp"});
    EXPECT_TRUE(client.request("FlushLog", {}, kLong));
    EXPECT_EQ(told, 0);
    release.set_value();
    EXPECT_TRUE(eventually([&] { return told >= 5 && !connected; }));
    client.close();
    EXPECT_FALSE(connected);
}

TEST_F(ClientTest, ClosingEndsEveryWaitAndTheStreamsStayHarmless) {
    auto client = std::make_unique<Client>(options());
    auto in = client->openStream("CTCloseIn", Direction::Read, 10);
    auto out = client->openStream("CTCloseOut", Direction::Write, 10);
    Notification news;
    std::string message;
    std::vector<std::thread> waits;
    waits.emplace_back([&] { EXPECT_FALSE(client->waitUntilConnected(100s)); });
    waits.emplace_back([&] { EXPECT_FALSE(client->request("FlushLog", {}, 100s)); });
    waits.emplace_back([&] { EXPECT_FALSE(client->nextNotification(news, 100s)); });
    waits.emplace_back([&] { EXPECT_FALSE(in->read(message, 100s)); });
    waits.emplace_back([&] { EXPECT_FALSE(out->write("x", 1, std::chrono::milliseconds::max())); });
    std::this_thread::sleep_for(20ms);
    client->close();
    for (auto& wait : waits) wait.join();
    client->close();
    EXPECT_EQ(reasonOf(client->openStream("CTLate", Direction::Read)), Reason::Closed);
    EXPECT_EQ(client->connect("CTLate").status().reason(), Reason::Closed);
    client.reset();
    EXPECT_EQ(in->read(message, 100s).reason(), Reason::Closed);
    EXPECT_EQ(out->flush(100s).reason(), Reason::Closed);
    EXPECT_EQ(out->waitUntilUp(100s).reason(), Reason::Closed);
    in->close();
}

TEST_F(ClientTest, ClosingAConnectionDoesNotWaitForAnAgentThatIsGone) {
    auto agent = std::make_unique<FakeAgent>(kName);
    Client client(options());
    ASSERT_TRUE(client.waitUntilConnected(kLong));
    agent.reset();
    const auto connection = client.connect("CTGone");
    // Until it asks the agent.
    ASSERT_TRUE(
        eventually([&] { return connection->waitUntilOpen(0ms).reason() == Reason::NotTakenUp; }));
    const auto start = Clock::now();
    connection->close();
    EXPECT_LT(Clock::now() - start, 1s);
}

TEST_F(ClientTest, StartsWithAllItsThreadsOrNone) {
    Options threads = options();
    threads.onNotification = [](const Notification&) {};
    failEachAllocation([&] {
        try {
            Client client(threads);
            client.connect("CTScarce");
        } catch (const std::bad_alloc&) {
        }
    });
}

TEST_F(ClientTest, SaysWhatAStreamLacks) {
    Client client(options());
    const auto stream = client.openStream("CTLacks", Direction::Read, 10);
    std::string message;
    EXPECT_EQ(stream->read(message, 0ms).reason(), Reason::NoAgent);
    EXPECT_EQ(client.waitUntilConnected(0ms).reason(), Reason::NoAgent);
    {
        FakeAgent apart(kName, 1, false);
        ASSERT_TRUE(eventually([&] { return client.agentProcessId() == 1; }));
        EXPECT_EQ(stream->waitUntilUp(0ms).reason(), Reason::NotConnected);
    }
    FakeAgent agent(kName, static_cast<unsigned int>(getpid()));
    agent.raise("CTLacks", "WRITE");
    agent.notify({"VCProcessId", std::to_string(getpid()), "1"});
    EXPECT_EQ(stream->waitUntilUp(kLong).reason(), Reason::InUseOtherDirection);
    EXPECT_EQ(stream->read(message, kLong).reason(), Reason::InUseOtherDirection);
}

TEST_F(ClientTest, AFlushFailsWhenTheAgentWasReplacedSinceTheWrite) {
    Client client(options());
    const auto stream = client.openStream("CTReplaced", Direction::Write, 10);
    {
        FakeAgent first(kName, static_cast<unsigned int>(getpid()));
        first.raise("CTReplaced", "WRITE");
        ASSERT_TRUE(stream->waitUntilUp(kLong));
        ASSERT_TRUE(agentsEnd->Open("CTReplaced", 10));
        EXPECT_TRUE(stream->write("lost", 4, kLong));
        agentsEnd->Close();
    }
    FakeAgent second(kName, static_cast<unsigned int>(getppid()));
    ASSERT_TRUE(agentsEnd->Open("CTReplaced", 10)) << "which drops what waits in it";
    second.raise("CTReplaced", "WRITE");
    second.notify({"VCProcessId", std::to_string(getppid()), "1"});
    ASSERT_TRUE(eventually(
        [&] { return client.agentProcessId() == static_cast<unsigned int>(getppid()); }));
    EXPECT_EQ(stream->flush(kLong).reason(), Reason::PeerGone);
    EXPECT_TRUE(stream->flush(kLong)) << "nothing was written since";
}

TEST_F(ClientTest, AForkedChildLeavesAClientToItsParent) {
    auto client = std::make_unique<Client>(options());
    auto stream = client->openStream("CTFork", Direction::Read, 10);
    EXPECT_TRUE(holdsInForkedChild([&] {
        alarm(10);  // in case it hangs
        client.reset();
        stream.reset();
        return true;
    }));
    EXPECT_TRUE(client->isListening());
}

}  // namespace
