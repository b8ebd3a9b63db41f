// The C interface; ClientTest covers the client beneath it.
#include "FakeAgent.h"
#include "NorvoStreamClientC.h"

namespace {

using namespace testsupport;
constexpr char kName[] = "ClientCTest";
constexpr int kLong = 20000;

class ClientCTest : public testing::Test {
protected:
    ~ClientCTest() override {
        norvo_stream_close(stream);
        norvo_client_close(client);
    }
    // The next news with that name.
    std::string newsOf(const std::string& name) {
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(norvo_client_next_notification(client, buffer, 1, &length, kLong),
                      NORVO_TOO_SMALL);
            EXPECT_EQ(norvo_client_next_notification(client, buffer, sizeof buffer, &length, 0),
                      NORVO_OK);
            if (buffer == name) return {buffer, length};
        }
        return {};
    }

    FakeAgent agent{kName};
    norvo_client* client = norvo_client_open(kName);
    norvo_stream* stream = nullptr;
    const std::shared_ptr<shared_memory::SharedMemoryI> end = segmenttest::plain();
    char buffer[100] = {};
    size_t length = 0;
};

TEST_F(ClientCTest, ReadsAMessageOnceTheBufferIsLargeEnough) {
    ASSERT_EQ(norvo_client_wait_connected(client, kLong), NORVO_OK);
    ASSERT_EQ(norvo_stream_open(client, "CCRead", NORVO_READ, 100, &stream), NORVO_OK);
    ASSERT_TRUE(end->Create("CCRead", 100));
    std::thread writer([&] { EXPECT_TRUE(end->WriteData("message", 7)); });
    EXPECT_EQ(norvo_stream_read(stream, buffer, 3, &length, kLong), NORVO_TOO_SMALL);
    EXPECT_EQ(length, 7u);
    EXPECT_EQ(norvo_stream_read(stream, buffer, sizeof buffer, &length, 0), NORVO_OK);
    EXPECT_EQ(std::string(buffer, length), "message");
    EXPECT_EQ(norvo_stream_read(stream, buffer, sizeof buffer, &length, 1), NORVO_NOT_TAKEN_UP);
    writer.join();
}

TEST_F(ClientCTest, PassesRequestsOnAndGivesNotificationsAsTextsInARow) {
    ASSERT_EQ(norvo_client_wait_connected(client, -1), NORVO_OK);
    EXPECT_EQ(norvo_client_is_connected(client), 1);
    const char* fields[] = {"1", "with|bar"};
    EXPECT_EQ(norvo_client_request(client, "SetHVDClientInfo", fields, 2, kLong), NORVO_OK);
    EXPECT_TRUE(agent.waitFor("SetHVDClientInfo|1|with\\|bar"));
    const std::string longText(20000, 'x');
    const char* longField = longText.c_str();
    EXPECT_EQ(norvo_client_request(client, "SetLogPath", &longField, 1, kLong), NORVO_TOO_LONG);
    agent.notify({"InvalidStreams", "a|b\\-", ""});
    EXPECT_EQ(newsOf("InvalidStreams"), std::string("InvalidStreams\0a|b\\-\0\0", 22));
    EXPECT_EQ(norvo_client_request(client, "RequestVCProcessId", nullptr, 0, kLong), NORVO_OK);
    EXPECT_EQ(newsOf("VCProcessId"), std::string("VCProcessId\0001\0001\0", 16));
}

TEST_F(ClientCTest, ClosingAHandleEndsTheWaitsOfOtherThreads) {
    norvo_stream* awaited = nullptr;
    ASSERT_EQ(norvo_stream_open(client, "CCClose", NORVO_READ, 100, &awaited), NORVO_OK);
    std::thread reader([&] {
        EXPECT_EQ(norvo_stream_read(awaited, buffer, sizeof buffer, &length, -1), NORVO_CLOSED);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    norvo_stream_close(awaited);
    reader.join();
}

TEST_F(ClientCTest, TellsOfTheAgentAndOfEachCodeInWords) {
    std::atomic<int> told{-1};
    norvo_client* watching = norvo_client_open_with(
        kName,
        [](int connected, void* context) { *static_cast<std::atomic<int>*>(context) = connected; },
        &told);
    EXPECT_TRUE(eventually([&] { return told == 1; }));
    EXPECT_EQ(norvo_client_status(watching), NORVO_OK);
    EXPECT_EQ(norvo_client_is_listening(watching), 1);
    EXPECT_TRUE(eventually([&] { return norvo_client_agent_process_id(watching) == 1; }));
    norvo_client_close(watching);
    EXPECT_STREQ(norvo_error_text(NORVO_NO_AGENT), "no agent answers in this session");
    EXPECT_STREQ(norvo_error_text(NORVO_ERRNO + EACCES), "the system refused: Permission denied");
    EXPECT_STREQ(norvo_error_text(-1), "unknown reason");
}

TEST_F(ClientCTest, AnswersImpossibleArguments) {
    EXPECT_EQ(norvo_stream_open(nullptr, "x", NORVO_READ, 0, &stream), NORVO_INVALID);
    EXPECT_EQ(norvo_stream_open(client, nullptr, NORVO_READ, 0, &stream), NORVO_INVALID);
    EXPECT_EQ(norvo_stream_open(client, "x", NORVO_READ, 0, nullptr), NORVO_INVALID);
    EXPECT_EQ(norvo_stream_open(client, "x", 2, 0, &stream), NORVO_INVALID);
    EXPECT_EQ(norvo_stream_open(client, "a/b", NORVO_READ, 0, &stream), NORVO_INVALID);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(norvo_stream_read(nullptr, buffer, 4, &length, 0), NORVO_INVALID);
    EXPECT_EQ(norvo_stream_write(nullptr, "x", 1, 0), NORVO_INVALID);
    EXPECT_EQ(norvo_client_request(client, nullptr, nullptr, 0, 0), NORVO_INVALID);
    EXPECT_EQ(norvo_client_request(client, "x", nullptr, 1, 0), NORVO_INVALID);
    const char* fields[] = {"1", nullptr};
    EXPECT_EQ(norvo_client_request(client, "x", fields, 2, 0), NORVO_INVALID);
    ASSERT_EQ(norvo_stream_open(client, "CCIn", NORVO_READ, 10, &stream), NORVO_OK);
    EXPECT_EQ(norvo_stream_write(stream, "x", 1, 0), NORVO_INVALID);
    EXPECT_EQ(norvo_client_next_notification(client, buffer, 4, nullptr, 0), NORVO_INVALID);
    EXPECT_EQ(norvo_client_is_connected(nullptr), 0);
    EXPECT_EQ(norvo_stream_is_up(nullptr), 0);
    norvo_stream_close(nullptr);
    norvo_client_close(nullptr);
}

}  // namespace
