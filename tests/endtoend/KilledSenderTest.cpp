// A host is repeatedly killed, or its connection cut, while it sends.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <thread>
#include <vector>

#include "Eventually.h"
#include "HostPair.h"
#include "NorvoStreamClient.h"

namespace {

using namespace std::chrono_literals;
using namespace NorvoStreamClient;
using testsupport::HostPair;
using testsupport::Side;

constexpr std::size_t kWords = 32 * 1024;  // 256 KiB
constexpr int kKills = 4;                  // the full runs repeat the test

// Takes messages until the end of its input, then reports how many were good and how many were
// mixed.
CHILD_ROLE(judgesMessages) {
    Client client;
    const auto stream = client.openStream("Media", Direction::Read);
    std::atomic<bool> over{false};
    std::size_t good = 0;
    std::size_t corrupt = 0;
    std::thread reader([&] {
        std::string message;
        while (!over) {
            if (!stream->read(message, 100ms)) continue;
            std::uint64_t first = 0;
            std::memcpy(&first, message.data(), std::min(sizeof first, message.size()));
            const std::string expected(reinterpret_cast<const char*>(&first), sizeof first);
            bool whole = message.size() == kWords * sizeof first;
            for (std::size_t at = 0; whole && at < message.size(); at += sizeof first) {
                whole = message.compare(at, sizeof first, expected) == 0;
            }
            ++(whole ? good : corrupt);
        }
    });
    testsupport::say("ready");
    testsupport::hear();
    over = true;
    reader.join();
    testsupport::say(std::to_string(good) + " good, " + std::to_string(corrupt) + " corrupt");
    return 0;
}

}  // namespace

TEST(KilledSenderAcrossProcesses, LeavesNoMessageOfTwoHalves) {
    HostPair hosts("rdp");
    auto judge = hosts.run(Side::Far, "judgesMessages");
    ASSERT_EQ(judge.readLine(), "ready");
    Client client;
    const auto stream = client.openStream("Media", Direction::Write);
    std::atomic<bool> over{false};
    std::atomic<int> written{0};
    std::thread writer([&] {
        for (std::uint64_t number = 0; !over; ++number) {
            const std::vector<std::uint64_t> words(kWords, number);
            if (stream->write(words.data(), kWords * sizeof number, 500ms)) ++written;
        }
    });
    const auto threeAreWritten = [&] {
        const int before = written;
        return testsupport::eventually([&] { return written >= before + 3; });
    };
    for (int kill = 0; kill < kKills; ++kill) {
        ASSERT_TRUE(threeAreWritten());
        hosts.kill(Side::Near);
        hosts.start(Side::Near);
        ASSERT_TRUE(threeAreWritten());
        hosts.reconnect();
    }
    EXPECT_TRUE(threeAreWritten());
    over = true;
    writer.join();
    judge.closeInput();
    const std::string verdict = judge.readLine();
    EXPECT_TRUE(verdict.ends_with(" good, 0 corrupt")) << verdict;
    EXPECT_FALSE(verdict.starts_with("0 good")) << verdict;
    std::cout << verdict << std::endl;
}
