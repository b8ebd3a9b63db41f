// Messages between local processes at the two ends of a channel, with real hosts between them.
#include "HostPair.h"
#include "NorvoStreamClient.h"
#include "Numbered.h"

namespace {

using namespace testsupport;
using namespace NorvoStreamClient;

constexpr auto kLong = 20s;

// The named streams, from the near side to the far, and those named NAME.back in return.
struct Streams {
    Streams(Client& client, const Texts& names, Side side = Side::Near) {
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

// Echoes the named streams until the end of its input.
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
    hear();
    client.close();
    for (auto& thread : threads) thread.join();
    return 0;
}

class EndToEndAcrossProcesses : public testing::TestWithParam<const char*> {};

TEST_P(EndToEndAcrossProcesses, EveryUsualStreamCarriesMessagesOfAllSizesThereAndBackInOrder) {
    // The pauses of the other kinds make this slow.
    const bool isFast = GetParam() == std::string("tcp");
    const std::size_t sizes[] = {1, 976, 977, 4992, 65536, 65537, 3 << 20};
    const std::size_t sizesOfAll = isFast ? 7 : 6;
    const std::size_t messages = isFast ? 7 * static_cast<std::size_t>(rounds(10)) : 6;
    HostPair hosts(GetParam());
    const Texts names{"Basic",        "Generic", "GenericUnReliable", "LogCollection", "Media",
                      "StringCipher", "upgrade"};
    auto echo = hosts.run(Side::Far, "echoStreams", names);
    Client client;
    const Streams streams(client, names);
    ASSERT_TRUE(streams.areUp());
    const auto message = [&](const std::string& name, std::size_t number) {
        const std::size_t size = sizes[number % sizesOfAll];
        const auto source = static_cast<std::uint32_t>(std::hash<std::string>()(name));
        return numberedMessage(source, static_cast<std::uint32_t>(number), size).substr(0, size);
    };
    std::deque<std::thread> threads;
    for (const auto& name : names) {
        threads.emplace_back([&] {
            for (std::size_t i = 0; i < messages; ++i) {
                const std::string text = message(name, i);
                EXPECT_TRUE(streams.out.at(name)->write(text.data(), text.size(), kLong));
            }
        });
        threads.emplace_back([&] {
            std::string answer;
            for (std::size_t i = 0; i < messages; ++i) {
                ASSERT_TRUE(streams.in.at(name)->read(answer, kLong)) << name << ", " << i;
                ASSERT_TRUE(answer == message(name, i)) << name << ", " << i;
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

TEST(HostsAcrossProcesses, StreamsOutliveEveryLossOfAProcessAndOfTheConnection) {
    HostPair hosts;
    const std::string name = "Media";
    std::optional<ChildProcess> echo(hosts.run(Side::Far, "echoStreams", {name}));
    Client client;
    std::optional<Streams> streams;
    streams.emplace(client, std::vector{name});
    // Empty when nothing comes back in time.
    const auto echoOf = [&](const std::string& text, std::chrono::milliseconds limit) {
        std::string answer;
        if (streams->out.at(name)->write(text.data(), text.size(), kLong))
            streams->in.at(name)->read(answer, limit);
        return answer;
    };
    const std::pair<const char*, std::function<void()>> losses[] = {
        {"none", [] {}},
        {"near streams opened anew",
         [&] { streams.reset(), streams.emplace(client, std::vector{name}); }},
        {"far local process killed",
         [&] { echo.reset(), echo.emplace(hosts.run(Side::Far, "echoStreams", {name})); }},
        {"connection", [&] { hosts.reconnect(); }},
        {"near host killed", [&] { hosts.kill(Side::Near), hosts.start(Side::Near); }},
        {"near host stopped", [&] { hosts.stop(Side::Near), hosts.start(Side::Near); }},
        {"far host killed", [&] { hosts.kill(Side::Far), hosts.start(Side::Far); }},
        {"far host stopped", [&] { hosts.stop(Side::Far), hosts.start(Side::Far); }},
        {"far host suspended",
         [&] { hosts.signal(Side::Far, SIGSTOP), hosts.signal(Side::Far, SIGCONT); }}};
    for (const auto& each : losses) {
        const std::string loss = each.first;
        SCOPED_TRACE(loss);
        each.second();
        ASSERT_TRUE(streams->areUp());
        // The far side's streams may come up later than ours: data sent before may be lost.
        ASSERT_TRUE(eventually([&] { return echoOf(loss, 200ms) == loss; }));
        for (int i = 0; i < 20; ++i) {
            const std::string text = loss + std::to_string(i);
            std::string answer = echoOf(text, kLong);
            while (answer == loss && streams->in.at(name)->read(answer, kLong)) continue;
            ASSERT_EQ(answer, text);
        }
    }
    EXPECT_NE(hosts.log(Side::Near).find("connected"), std::string::npos);
}

TEST(KilledSenderAcrossProcesses, LeavesNoMessageOfTwoHalvesAndHostsEndAtOnceInMidMessage) {
    HostPair hosts("rdp");
    auto echo = hosts.run(Side::Far, "echoStreams", {"Media"});
    Client client;
    const Streams streams(client, {"Media"});
    std::atomic<bool> ends{false};
    std::atomic<int> whole{0};
    std::thread writer([&] {
        for (std::uint32_t number = 0; !ends; ++number) {
            const std::string text = numberedMessage(1, number, 256 * 1024);
            streams.out.at("Media")->write(text.data(), text.size(), 500ms);
        }
    });
    std::thread reader([&] {
        for (std::string text; !ends;) {
            if (!streams.in.at("Media")->read(text, 100ms)) continue;
            EXPECT_TRUE(readNumbered(text)) << "mixed";
            ++whole;
        }
    });
    const auto threeComeBack = [&] {
        return eventually([&, before = whole.load()] { return whole >= before + 3; });
    };
    for (int kill = 0; kill < 4; ++kill) {
        EXPECT_TRUE(threeComeBack());
        hosts.kill(Side::Near);
        hosts.start(Side::Near);
        EXPECT_TRUE(threeComeBack());
        hosts.reconnect();
    }
    EXPECT_TRUE(threeComeBack());
    for (const Side side : {Side::Near, Side::Far}) {
        const auto begun = Clock::now();
        hosts.stop(side);
        EXPECT_LT(since(begun), 5s);
    }
    ends = true;
    writer.join();
    reader.join();
}

}  // namespace
