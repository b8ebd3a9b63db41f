// A client beside an agent whose INFO side is real and whose streams the test plays itself.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <thread>

#include "Eventually.h"
#include "FakeAgent.h"
#include "NorvoStreamClient.h"

namespace {

using namespace std::chrono_literals;
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
    // The next news of that name.
    static std::optional<Notification> waitForNews(Client& client, const std::string& name) {
        Notification news;
        for (int i = 0; i < 100 && client.nextNotification(news, kLong); ++i)
            if (news.name == name) return news;
        return std::nullopt;
    }
    const std::shared_ptr<SharedMemoryI> agentsEnd =
        getSharedMemoryInstance(ESharedMemoryType::Plain);
};

TEST_F(ClientTest, AWriteGivesUpInTimeBeforeTheStreamIsUpAndWhenNobodyReads) {
    FakeAgent agent(kName);
    Client client(options());
    auto stream = client.openStream("CTStuck", Direction::Write, 10);
    EXPECT_FALSE(stream->write("early", 5, 1ms));
    ASSERT_TRUE(agentsEnd->Open("CTStuck", 10));
    agent.raise("CTStuck", "WRITE");
    ASSERT_TRUE(stream->waitUntilUp(kLong));
    EXPECT_TRUE(stream->write("fills it", 8, kLong));
    EXPECT_FALSE(stream->flush(1ms));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(stream->write("no room", 7, 50ms));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
    unsigned int length = 0;
    EXPECT_EQ(agentsEnd->ReadData(length, 1000), "fills it");
    EXPECT_TRUE(stream->flush(kLong));
}

TEST_F(ClientTest, RefusesStreamsThatCannotBe) {
    Client client(options());
    for (const std::string& name : {std::string(), std::string("../x"), std::string(65, 'x'),
                                    std::string("ClientTest_Info_STREAM2VC")})
        EXPECT_FALSE(client.openStream(name, Direction::Read)) << name;
    for (const unsigned int size : {0u, (64u << 20) + 1})
        EXPECT_FALSE(client.openStream("CTSize", Direction::Read, size)) << size;
    auto first = client.openStream("CTSize", Direction::Read, 10);
    EXPECT_TRUE(first);
    EXPECT_FALSE(client.openStream("CTSize", Direction::Write, 10)) << "it is open already";
    first.reset();
    EXPECT_TRUE(client.openStream("CTSize", Direction::Write, 10));
    EXPECT_FALSE(client.openStream("CTRead", Direction::Read)->write("x", 1, 1ms));
}

TEST_F(ClientTest, PassesNotificationsAndRequestsOn) {
    Client client(options());
    FakeAgent agent(kName);
    ASSERT_TRUE(client.waitUntilConnected(kLong));
    agent.notify({"InvalidStreams", "a|b\\-"});
    const auto news = waitForNews(client, "InvalidStreams");
    ASSERT_TRUE(news);
    EXPECT_EQ(news->fields, std::vector<std::string>{"a|b\\-"});
    EXPECT_TRUE(client.request("SetLogPath", {"/tmp/with|bar"}, kLong));
    EXPECT_TRUE(agent.waitFor("SetLogPath|/tmp/with\\|bar"));
    EXPECT_FALSE(client.request("SetLogPath", {std::string(20000, 'x')}, kLong));
    EXPECT_TRUE(client.request("RequestVCProcessId", {}, kLong));
    EXPECT_TRUE(waitForNews(client, "VCProcessId"));
}

TEST_F(ClientTest, ASlowCallbackHoldsUpNeitherTheStreamsNorTheAgent) {
    FakeAgent agent(kName);
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<int> told{0};
    auto watching = options();
    watching.onNotification = [&](const Notification&) {
        released.wait_for(kLong);
        ++told;
        throw std::runtime_error("a callback's own fault");
    };
    Client client(watching);
    ASSERT_TRUE(client.waitUntilConnected(kLong));
    for (int i = 0; i < 5; ++i) agent.notify({"SessionUp"});
    EXPECT_TRUE(client.request("FlushLog", {}, kLong));
    EXPECT_EQ(told, 0);
    release.set_value();
    EXPECT_TRUE(testsupport::eventually([&] { return told >= 5; }));
}

TEST_F(ClientTest, ClosingEndsEveryWaitAndTheStreamsStayHarmless) {
    auto client = std::make_unique<Client>(options());
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

TEST_F(ClientTest, MayComeAndGoQuicklyWithAndWithoutAnAgent) {
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(Client(options()).openStream("CTQuick", Direction::Write, 10));
    FakeAgent agent(kName);
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(Client(options()).openStream("CTQuick", Direction::Read, 10));
}

}  // namespace
