// A client beside an agent whose INFO side is real and whose streams the test plays itself.
#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <optional>
#include <thread>

#include "FakeAgent.h"
#include "NorvoStreamClient.h"

namespace {

using namespace std::chrono_literals;
using namespace NorvoStreamClient;
using testing::ElementsAre;

constexpr char kName[] = "ClientTest";
constexpr auto kLong = 20s;

Options plainOptions() {
    Options options;
    options.clientName = kName;
    return options;
}

std::shared_ptr<SharedMemoryI> agentsEnd(const std::string& stream, bool agentWrites,
                                         unsigned int capacity) {
    auto segment = getSharedMemoryInstance(ESharedMemoryType::Plain);
    const bool done =
        agentWrites ? segment->Create(stream, capacity) : segment->Open(stream, capacity);
    EXPECT_TRUE(done);
    return segment;
}

std::optional<Notification> waitForNews(Client& client, const std::string& name) {
    Notification news;
    for (int i = 0; i < 100 && client.nextNotification(news, kLong); ++i) {
        if (news.name == name) return news;
    }
    return std::nullopt;
}

TEST(ClientTest, WritesOnceTheAgentServesTheStream) {
    FakeAgent agent(kName, 4711);
    Client client(plainOptions());
    auto stream = client.openStream("CTWrite", Direction::Write, 1000);
    ASSERT_TRUE(stream);
    ASSERT_TRUE(agent.waitFor("OpenStream|CTWrite|1000"));
    EXPECT_FALSE(stream->write("early", 5, 1ms));
    auto end = agentsEnd("CTWrite", false, 1000);
    agent.raise("CTWrite", "WRITE");
    const std::string message(2500, 'm');
    std::thread writer([&] {
        EXPECT_TRUE(stream->write(message.data(), message.size(), kLong));
        EXPECT_TRUE(stream->flush(kLong));
    });
    unsigned int length = 0;
    std::string got;
    for (int i = 0; i < 100 && got.empty(); ++i) got = end->ReadData(length, 200);
    writer.join();
    EXPECT_EQ(got, message);
    EXPECT_TRUE(client.isConnected());
    EXPECT_EQ(client.agentProcessId(), 4711u);
}

TEST(ClientTest, ReadsWhatTheAgentWrites) {
    FakeAgent agent(kName);
    Client client(plainOptions());
    auto stream = client.openStream("CTRead", Direction::Read, 1000);
    ASSERT_TRUE(agent.waitFor("CreateStream|CTRead|1000"));
    auto end = agentsEnd("CTRead", true, 1000);
    std::thread writer([&] {
        for (const std::string text : {"one", "two", "three"})
            EXPECT_TRUE(end->WriteData(text.data(), static_cast<unsigned int>(text.size())));
    });
    std::string message;
    for (const std::string text : {"one", "two", "three"}) {
        EXPECT_TRUE(stream->read(message, kLong));
        EXPECT_EQ(message, text);
    }
    writer.join();
    EXPECT_FALSE(stream->read(message, 1ms));
    EXPECT_EQ(message, "");
}

TEST(ClientTest, AWriteGivesUpInTimeWhenNobodyReads) {
    FakeAgent agent(kName);
    Client client(plainOptions());
    auto stream = client.openStream("CTStuck", Direction::Write, 10);
    auto end = agentsEnd("CTStuck", false, 10);
    agent.raise("CTStuck", "WRITE");
    ASSERT_TRUE(stream->waitUntilUp(kLong));
    EXPECT_TRUE(stream->write("fills it", 8, kLong));
    EXPECT_FALSE(stream->flush(1ms));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(stream->write("no room", 7, 50ms));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
}

TEST(ClientTest, RefusesStreamsThatCannotBe) {
    Client client(plainOptions());
    EXPECT_FALSE(client.openStream("", Direction::Read));
    EXPECT_FALSE(client.openStream("../x", Direction::Read));
    EXPECT_FALSE(client.openStream(std::string(65, 'x'), Direction::Read));
    EXPECT_FALSE(client.openStream("ClientTest_Info_STREAM2VC", Direction::Read));
    EXPECT_FALSE(client.openStream("CTSize", Direction::Read, 0));
    EXPECT_FALSE(client.openStream("CTSize", Direction::Read, (1u << 30) + 1));
    auto first = client.openStream("CTSize", Direction::Read, 10);
    EXPECT_TRUE(first);
    EXPECT_FALSE(client.openStream("CTSize", Direction::Write, 10)) << "it is open already";
    first.reset();
    EXPECT_TRUE(client.openStream("CTSize", Direction::Write, 10));
    EXPECT_FALSE(client.openStream("CTRead", Direction::Read)->write("x", 1, 1ms));
}

TEST(ClientTest, PassesNotificationsAndRequestsOn) {
    Client client(plainOptions());
    FakeAgent agent(kName);
    ASSERT_TRUE(client.waitUntilConnected(kLong));
    agent.notify({"InvalidStreams", "a|b\\-"});
    const auto news = waitForNews(client, "InvalidStreams");
    ASSERT_TRUE(news);
    EXPECT_THAT(news->fields, ElementsAre("a|b\\-"));
    EXPECT_TRUE(client.request("SetLogPath", {"/tmp/with|bar"}, kLong));
    EXPECT_TRUE(agent.waitFor("SetLogPath|/tmp/with\\|bar"));
    EXPECT_FALSE(client.request("SetLogPath", {std::string(20000, 'x')}, kLong));
    EXPECT_TRUE(client.request("RequestVCProcessId", {}, kLong));
    EXPECT_TRUE(waitForNews(client, "VCProcessId"));
}

TEST(ClientTest, ASlowCallbackHoldsUpNeitherTheStreamsNorTheAgent) {
    FakeAgent agent(kName);
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<int> told{0};
    auto options = plainOptions();
    options.onNotification = [&](const Notification&) {
        released.wait_for(kLong);
        ++told;
        throw std::runtime_error("a callback's own fault");
    };
    Client client(options);
    ASSERT_TRUE(client.waitUntilConnected(kLong));
    for (int i = 0; i < 5; ++i) agent.notify({"SessionUp"});
    EXPECT_TRUE(client.request("FlushLog", {}, kLong));
    EXPECT_EQ(told, 0);
    release.set_value();
    for (int i = 0; i < 2000 && told < 5; ++i) std::this_thread::sleep_for(5ms);
    EXPECT_GE(told, 5);
}

TEST(ClientTest, ComesBackWhenAnAgentDiesSilentlyAndAnotherStarts) {
    std::promise<void> lost;
    std::promise<void> found;
    std::atomic<int> changes{0};
    auto options = plainOptions();
    options.onConnectionChange = [&](bool connected) {
        const int change = ++changes;
        if (change == 2 && !connected) lost.set_value();
        if (change == 3 && connected) found.set_value();
    };
    auto agent = std::make_unique<FakeAgent>(kName, 100);
    agent->raise("CTBack", "READ");
    Client client(options);
    auto stream = client.openStream("CTBack", Direction::Read, 10);
    ASSERT_TRUE(stream->waitUntilUp(kLong));
    agent.reset();
    ASSERT_EQ(lost.get_future().wait_for(kLong), std::future_status::ready);
    EXPECT_FALSE(stream->isUp());
    agent = std::make_unique<FakeAgent>(kName, 101);
    ASSERT_EQ(found.get_future().wait_for(kLong), std::future_status::ready);
    EXPECT_EQ(client.agentProcessId(), 101u);
    EXPECT_TRUE(agent->waitFor("CreateStream|CTBack|10"));
    agent->raise("CTBack", "READ");
    EXPECT_TRUE(stream->waitUntilUp(kLong));
}

TEST(ClientTest, ClosingEndsEveryWaitAndTheStreamsStayHarmless) {
    auto client = std::make_unique<Client>(plainOptions());
    auto in = client->openStream("CTCloseIn", Direction::Read, 10);
    auto out = client->openStream("CTCloseOut", Direction::Write, 10);
    std::vector<std::thread> waits;
    waits.emplace_back([&] { EXPECT_FALSE(client->waitUntilConnected(100s)); });
    waits.emplace_back([&] { EXPECT_FALSE(client->request("FlushLog", {}, 100s)); });
    waits.emplace_back([&] {
        Notification news;
        EXPECT_FALSE(client->nextNotification(news, 100s));
    });
    waits.emplace_back([&] {
        std::string message;
        EXPECT_FALSE(in->read(message, 100s));
    });
    waits.emplace_back([&] { EXPECT_FALSE(out->write("x", 1, std::chrono::milliseconds::max())); });
    std::this_thread::sleep_for(20ms);
    client->close();
    for (auto& wait : waits) wait.join();
    client->close();
    EXPECT_FALSE(client->openStream("CTLate", Direction::Read));
    client.reset();
    std::string message;
    EXPECT_FALSE(in->read(message, 100s));
    EXPECT_FALSE(out->flush(100s));
    EXPECT_FALSE(out->waitUntilUp(100s));
    in->close();
}

TEST(ClientTest, MayComeAndGoQuicklyWithAndWithoutAnAgent) {
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(Client(plainOptions()).openStream("CTQuick", Direction::Write, 10));
    FakeAgent agent(kName);
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(Client(plainOptions()).openStream("CTQuick", Direction::Read, 10));
}

}  // namespace
