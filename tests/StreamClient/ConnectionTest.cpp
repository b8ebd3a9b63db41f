// Connections and the examples between two real hosts; ConnectionMachineTest covers the protocol.
#include "HostPair.h"
#include "NorvoStreamClient.h"
#include "NorvoStreamClientC.h"

namespace {

using namespace testsupport;
using namespace NorvoStreamClient;

constexpr auto kLong = 60s;

// Echoes the input until it ends.
CHILD_ROLE(connectionEcho) {
    Client client;
    const auto connection = client.accept(args.at(0));
    std::string buffer(100'000, '\0');
    Status got;
    for (std::size_t length = 0;
         (got = connection->read(buffer.data(), buffer.size(), length, kLong));)
        if (!connection->write(buffer.data(), length, kLong)) return 1;
    if (got.reason() != Reason::Ended || !connection->finish()) return 2;
    return connection->flush(kLong) ? 0 : 3;
}

TEST(ConnectionAcrossProcesses, EveryByteComesBackThroughTheLossOfTheChannelAndOfEitherHost) {
    HostPair hosts;
    auto echo = hosts.run(Side::Far, "connectionEcho", {"Media"});
    Client client;
    const auto connection = client.connect("Media");
    ASSERT_TRUE(connection->waitUntilOpen(kLong));
    const std::size_t stage = kSanitized ? 2'000'000 : 20'000'000;
    std::string sent(4 * stage, '\0');
    for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * i >> 11);
    std::thread writer([&] {
        EXPECT_TRUE(connection->write(sent.data(), sent.size(), 10min));
        EXPECT_TRUE(connection->finish());
    });
    std::string received;
    const auto readUpTo = [&](std::size_t count) {
        std::string buffer(100'000, '\0');
        std::size_t length = 0;
        while (received.size() < count &&
               connection->read(buffer.data(), std::min(buffer.size(), count - received.size()),
                                length, kLong))
            received.append(buffer, 0, length);
    };
    readUpTo(stage);
    hosts.reconnect();
    readUpTo(2 * stage);
    for (const Side side : {Side::Near, Side::Far}) {
        hosts.kill(side);
        hosts.start(side);
        readUpTo(received.size() + stage);
    }
    EXPECT_TRUE(received == sent);
    writer.join();
    char byte = 0;
    std::size_t length = 0;
    EXPECT_EQ(connection->read(&byte, 1, length, kLong).reason(), Reason::Ended);
    EXPECT_TRUE(connection->flush(kLong));
    EXPECT_EQ(connection->acknowledged(), sent.size());
    EXPECT_EQ(echo.wait(), 0);
}

TEST(ConnectionAcrossProcesses, SaysWhatIsLackingAndWhoIsGone) {
    Client client;
    const auto lonely = client.connect("Generic");
    EXPECT_EQ(lonely->waitUntilOpen(100ms).reason(), Reason::NoAgent);
    HostPair hosts;
    EXPECT_TRUE(
        eventually([&] { return lonely->waitUntilOpen(100ms).reason() == Reason::Timeout; }));
    {
        auto echo = hosts.run(Side::Far, "connectionEcho", {"Generic"});
        ASSERT_TRUE(lonely->waitUntilOpen(kLong));
        ASSERT_TRUE(lonely->write("hello", 5, kLong));
        echo.kill();
    }
    auto successor = hosts.run(Side::Far, "connectionEcho", {"Generic"});
    char bytes[5];
    std::size_t length = 0;
    Status got;
    while ((got = lonely->read(bytes, sizeof bytes, length, kLong))) {
    }
    EXPECT_EQ(got.reason(), Reason::PeerGone);
    EXPECT_EQ(lonely->write("x", 1, kLong).reason(), Reason::PeerGone);
    lonely->close();
    EXPECT_EQ(lonely->status().reason(), Reason::Closed);

    norvo_client* c = norvo_client_open(nullptr);
    norvo_connection* connection = nullptr;
    const norvo_connection_options options{0, 1u << 20, 0, 30000};
    ASSERT_EQ(norvo_connection_open_with(c, "Generic", NORVO_CONNECT, &options, &connection),
              NORVO_OK);
    EXPECT_EQ(norvo_connection_wait_open(connection, 60000), NORVO_OK);
    norvo_client* other = norvo_client_open(nullptr);
    norvo_connection* second = nullptr;
    const int opened = norvo_connection_open(other, "Generic", NORVO_CONNECT, &second);
    EXPECT_EQ(opened == NORVO_OK ? norvo_connection_wait_open(second, 60000) : opened,
              NORVO_IN_USE);
    norvo_connection_close(second);
    EXPECT_EQ(norvo_client_close(other), NORVO_OK);
    EXPECT_EQ(norvo_connection_write(connection, "hello", 5, &length, 60000), NORVO_OK);
    EXPECT_EQ(length, 5U);
    EXPECT_EQ(norvo_connection_finish(connection), NORVO_OK);
    EXPECT_EQ(norvo_connection_flush(connection, 60000), NORVO_OK);
    EXPECT_EQ(norvo_connection_acknowledged(connection), 5U);
    EXPECT_EQ(norvo_connection_read(connection, bytes, sizeof bytes, &length, 60000), NORVO_OK);
    EXPECT_EQ(std::string(bytes, length), "hello");
    EXPECT_EQ(norvo_connection_read(connection, bytes, 5, &length, 60000), NORVO_ENDED);
    EXPECT_EQ(norvo_connection_status(connection), NORVO_OK);
    norvo_connection_close(connection);
    norvo_client_close(c);
    EXPECT_EQ(successor.wait(), 0);
}

TEST(ConnectionAcrossProcesses, TheExamplesWorkAsTheyStand) {
    HostPair hosts;
    const auto start = [&](const std::string& name, Side side) {
        return support::Subprocess({NORVO_EXAMPLES "/norvo_example_" + name},
                                   hosts.environment(side));
    };
    for (const std::string suffix : {"", "_c"}) {
        auto receiver = start("receive" + suffix, Side::Far);
        auto line = std::async(std::launch::async, [&] { return receiver.readLine(20s); });
        while (line.wait_for(0s) != std::future_status::ready)
            ASSERT_EQ(start("send" + suffix, Side::Near).wait(), 0) << suffix;
        EXPECT_EQ(line.get(), "hello");
        EXPECT_EQ(receiver.wait(), 0);
    }
}

}  // namespace
