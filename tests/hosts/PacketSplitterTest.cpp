#include "PacketSplitter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace hosts {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes packet(std::uint32_t sequence, std::uint32_t total, std::uint32_t payload,
             std::uint32_t message, unsigned char fill = 0) {
    const std::uint32_t fields[] = {0x005B005B, sequence, total, 7, payload, message + 24};
    Bytes bytes(sizeof fields + payload, fill);
    std::memcpy(bytes.data(), fields, sizeof fields);
    return bytes;
}

// Messages as a channel of packets of 1500 bytes cuts them, their bytes such that many look like a
// header's beginning.
std::vector<Bytes> randomPackets(std::minstd_rand& random) {
    std::vector<Bytes> packets;
    while (packets.size() < 30) {
        const auto size =
            static_cast<std::uint32_t>(random() % 2 ? random() % 100 : random() % 6000);
        const std::uint32_t total = std::max(1U, (size + 1475) / 1476);
        for (std::uint32_t i = total; i > 0; --i)
            packets.push_back(packet(i, total, i == total ? size - (total - 1) * 1476 : 1476, size,
                                     random() % 2 ? 91 : 0));
    }
    return packets;
}

TEST(PacketSplitter, FindsThePacketsHoweverTheStreamIsCutAndWhereverItBegins) {
    std::minstd_rand random(1);
    for (int run = 0; run < 300; ++run) {
        const auto packets = randomPackets(random);
        Bytes stream;
        for (const Bytes& each : packets) stream.insert(stream.end(), each.begin(), each.end());
        const bool fromTheMiddle = run % 3 == 0;
        const std::size_t missing = fromTheMiddle ? 1 + random() % packets[0].size() : 0;
        PacketSplitter splitter(1500, 4000);
        std::vector<Bytes> found;
        for (std::size_t at = missing; at < stream.size();) {
            const auto size = std::min<std::size_t>(1 + random() % 3000, stream.size() - at);
            splitter.add({stream.data() + at, size}, [&](unsigned char* bytes, std::uint32_t n) {
                found.emplace_back(bytes, bytes + n);
            });
            at += size;
        }
        ASSERT_EQ(found.size(), packets.size() - fromTheMiddle) << "run " << run;
        EXPECT_TRUE(std::equal(found.begin(), found.end(), packets.begin() + fromTheMiddle));
        EXPECT_EQ(splitter.skipped(), missing ? packets[0].size() - missing : 0);
    }
}

TEST(PacketSplitter, SkipsWhatCannotBeAHeaderAndForgetsAHalfPacketWhenToldTo) {
    const Bytes good = packet(1, 1, 10, 10);
    const struct {
        const char* what;
        Bytes bytes;
    } rows[] = {
        {"text", {'G', 'E', 'T', ' ', '/', ' '}},         {"sequence 0", packet(0, 1, 10, 10)},
        {"sequence above total", packet(2, 1, 10, 10)},   {"too long", packet(1, 1, 1477, 1477)},
        {"longer than its message", packet(1, 1, 10, 9)},
    };
    for (const auto& row : rows) {
        PacketSplitter splitter(1500);
        int found = 0;
        const auto count = [&](unsigned char*, std::uint32_t length) { found += length == 34; };
        splitter.add(row.bytes, count);
        splitter.add(good, count);
        EXPECT_EQ(found, 1) << row.what;
        EXPECT_EQ(splitter.skipped(), row.bytes.size()) << row.what;

        splitter.add({good.data(), 30}, count);
        splitter.reset();
        splitter.add(good, count);
        EXPECT_EQ(found, 2) << row.what;
    }
}

}  // namespace
}  // namespace hosts
