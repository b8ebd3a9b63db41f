// Messages between local processes at the two ends of a channel, with real hosts between them.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <deque>
#include <functional>
#include <map>
#include <thread>

#include "Eventually.h"
#include "HostPair.h"
#include "NorvoStreamClient.h"

namespace {

using namespace std::chrono_literals;
using namespace NorvoStreamClient;
using testsupport::HostPair;
using testsupport::Side;

constexpr auto kLong = 20s;
constexpr const char* kUsualStreams[] = {
    "Basic", "Generic", "GenericUnReliable", "LogCollection", "Media", "StringCipher", "upgrade"};

// Different for every stream and size.
std::string messageOf(const std::string& stream, std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>(stream[i % stream.size()] * 31 + static_cast<char>(i * i >> 7));
    return text;
}

// The named streams out, and back those whose names end in ".back".
struct Streams {
    Streams(Client& client, const std::vector<std::string>& names, Side side = Side::Near) {
        const bool isNear = side == Side::Near;
        for (const auto& name : names) {
            out[name] = client.openStream(isNear ? name : name + ".back", Direction::Write);
            in[name] = client.openStream(isNear ? name + ".back" : name, Direction::Read);
        }
    }
    bool areUp() const {
        for (const auto& [name, stream] : out) {
            if (!stream->waitUntilUp(kLong) || !in.at(name)->waitUntilUp(kLong)) return false;
        }
        return true;
    }
    std::map<std::string, std::shared_ptr<Stream>> out;
    std::map<std::string, std::shared_ptr<Stream>> in;
};

// Sends back what comes through the named streams, until the end of its input.
CHILD_ROLE(echoStreams) {
    Client client;
    const Streams streams(client, args, Side::Far);
    std::deque<std::thread> threads;
    for (const auto& name : args) {
        threads.emplace_back([&in = *streams.in.at(name), &out = *streams.out.at(name)] {
            std::string message;
            while (in.read(message, 1h)) out.write(message.data(), message.size(), kLong);
        });
    }
    testsupport::hear();
    client.close();
    for (auto& thread : threads) thread.join();
    return 0;
}

// What comes back of `text`; empty when nothing does.
std::string echoOf(const Streams& streams, const std::string& name, const std::string& text) {
    std::string answer;
    if (streams.out.at(name)->write(text.data(), text.size(), kLong))
        streams.in.at(name)->read(answer, kLong);
    return answer;
}

class EndToEndAcrossProcesses : public testing::TestWithParam<const char*> {};

TEST_P(EndToEndAcrossProcesses, EveryUsualStreamCarriesMessagesOfAllSizesThereAndBack) {
    HostPair hosts(GetParam());
    const std::vector<std::string> names(std::begin(kUsualStreams), std::end(kUsualStreams));
    auto echo = hosts.run(Side::Far, "echoStreams", names);
    Client client;
    const Streams streams(client, names);
    ASSERT_TRUE(streams.areUp());
    std::deque<std::thread> threads;
    for (const auto& name : names) {
        threads.emplace_back([&streams, &name] {
            for (const std::size_t size : {1U, 976U, 977U, 4992U, 65536U, 65537U}) {
                const std::string text = messageOf(name, size);
                EXPECT_TRUE(echoOf(streams, name, text) == text) << name << ", " << size;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    echo.closeInput();
    EXPECT_EQ(echo.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, EndToEndAcrossProcesses,
                         testing::Values("citrix", "vmware", "rdp", "tcp"),
                         [](const auto& kind) { return std::string(kind.param); });

TEST(HostsAcrossProcesses, StreamsOutliveEveryLossOfAHostAndOfTheConnection) {
    HostPair hosts;
    const std::string name = "Media";
    auto echo = hosts.run(Side::Far, "echoStreams", {name});
    Client client;
    const Streams streams(client, {name});
    const std::pair<const char*, std::function<void()>> losses[] = {
        {"none", [] {}},
        {"connection", [&] { hosts.reconnect(); }},
        {"near host killed", [&] { hosts.kill(Side::Near), hosts.start(Side::Near); }},
        {"near host stopped", [&] { hosts.stop(Side::Near), hosts.start(Side::Near); }},
        {"far host killed", [&] { hosts.kill(Side::Far), hosts.start(Side::Far); }},
        {"far host stopped", [&] { hosts.stop(Side::Far), hosts.start(Side::Far); }},
        {"far host suspended",
         [&] { hosts.signal(Side::Far, SIGSTOP), hosts.signal(Side::Far, SIGCONT); }}};
    for (const auto& [loss, happens] : losses) {
        SCOPED_TRACE(loss);
        happens();
        ASSERT_TRUE(streams.areUp());
        // The far end's streams may come up later than ours: what is sent before may be lost.
        ASSERT_TRUE(testsupport::eventually([&, text = std::string(loss)] {
            std::string answer;
            return streams.out.at(name)->write(text.data(), text.size(), kLong) &&
                   streams.in.at(name)->read(answer, 200ms) && answer == text;
        }));
    }
    EXPECT_NE(hosts.log(Side::Near).find("connected"), std::string::npos);
}

TEST(HostsAcrossProcesses, AHostEndsAtOnceWhileItsStreamsAreInUse) {
    HostPair hosts;
    auto echo = hosts.run(Side::Far, "echoStreams", {"Media"});
    Client client;
    const Streams streams(client, {"Media"});
    ASSERT_TRUE(streams.areUp());
    std::atomic<bool> ends{false};
    std::thread writer([&] {
        const std::string text = messageOf("Media", 1 << 20);
        while (!ends) streams.out.at("Media")->write(text.data(), text.size(), 100ms);
    });
    std::string answer;
    EXPECT_TRUE(streams.in.at("Media")->read(answer, kLong));
    for (const Side side : {Side::Near, Side::Far}) {
        const auto begun = std::chrono::steady_clock::now();
        hosts.stop(side);
        EXPECT_LT(testsupport::since(begun), 5s);
    }
    ends = true;
    writer.join();
}

}  // namespace
