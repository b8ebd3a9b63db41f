#include "PacketSplitter.h"

#include "PacketBytes.h"
#include "TestSupport.h"

namespace hosts {
namespace {

using packettest::part;
using packettest::wireOf;

std::span<const unsigned char> bytesOf(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// Messages cut as by a channel with packets of 1500 bytes, with many bytes that look like the start
// of a header.
std::vector<std::string> randomPackets(std::minstd_rand& random) {
    packettest::Packetization packetizer(nullptr, 1500);
    std::vector<std::string> packets;
    while (packets.size() < 30) {
        const std::size_t bound = random() % 2 ? 100 : 6000;
        const char fill = random() % 2 ? 91 : 0;
        const std::string message(random() % bound, fill);
        for (const auto& packet : packettest::cut(packetizer, message))
            packets.push_back(packettest::textOf(packet->WireBytes()));
    }
    return packets;
}

TEST(PacketSplitter, FindsThePacketsHoweverTheStreamIsCutAndWhereverItBegins) {
    std::minstd_rand random(1);
    for (int run = 0; run < 300; ++run) {
        const auto packets = randomPackets(random);
        std::string stream;
        for (const auto& each : packets) stream += each;
        const bool fromTheMiddle = run % 3 == 0;
        const std::size_t missing = fromTheMiddle ? 1 + random() % packets[0].size() : 0;
        PacketSplitter splitter(1500, 4000);
        std::vector<std::string> found;
        for (std::size_t at = missing; at < stream.size();) {
            const auto size = std::min<std::size_t>(1 + random() % 3000, stream.size() - at);
            splitter.add(bytesOf(stream).subspan(at, size),
                         [&](unsigned char* bytes, std::uint32_t n) {
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
    const std::string payload(10, 'x');
    const std::string good = wireOf(part(7, 1, 1, 10), payload);
    const std::pair<const char*, std::string> rows[] = {
        {"text", "GET / "},
        {"sequence 0", wireOf(part(7, 0, 1, 10), payload)},
        {"sequence above total", wireOf(part(7, 2, 1, 10), payload)},
        {"too long", wireOf(part(7, 1, 1, 1477), std::string(1477, 'x'))},
        {"longer than its message", wireOf(part(7, 1, 1, 9), payload)},
    };
    for (const auto& [what, bytes] : rows) {
        SCOPED_TRACE(what);
        PacketSplitter splitter(1500);
        int found = 0;
        const auto count = [&](unsigned char*, std::uint32_t length) { found += length == 34; };
        splitter.add(bytesOf(bytes), count);
        splitter.add(bytesOf(good), count);
        EXPECT_EQ(found, 1);
        EXPECT_EQ(splitter.skipped(), bytes.size());

        splitter.add(bytesOf(good).first(30), count);
        splitter.reset();
        splitter.add(bytesOf(good), count);
        EXPECT_EQ(found, 2);
    }
}

}  // namespace
}  // namespace hosts
