#include <gmock/gmock.h>

#include <set>
#include <thread>

#include "LogCapture.h"
#include "PacketBytes.h"
#include "Rounds.h"

using namespace packettest;
using testing::ElementsAre;
using testsupport::LogCapture;

namespace {

constexpr int kMaxPacket = 124;  // 100 bytes of payload

}  // namespace

TEST(Packetization, CutsAtTheLargestPayload) {
    Packetization packetization(nullptr, kMaxPacket);
    const struct {
        std::size_t length;
        std::size_t packets;
        std::uint32_t lastPayload;
    } cases[] = {{0, 1, 0},   {1, 1, 1},     {99, 1, 99}, {100, 1, 100},
                 {101, 2, 1}, {200, 2, 100}, {201, 3, 1}, {12345, 124, 45}};
    for (const auto& [length, count, lastPayload] : cases) {
        SCOPED_TRACE(length);
        const auto packets = cut(packetization, pattern(length));
        ASSERT_EQ(packets.size(), count);
        EXPECT_EQ(packets.front()->GetPayloadSize(), lastPayload);
        EXPECT_EQ(packets.front()->GetMessageSize(), length + 24);
    }
}

TEST(Packetization, PutsTheLastPacketFirst) {
    Packetization packetization(nullptr, kMaxPacket);
    const std::string message = pattern(250);
    const auto packets = cut(packetization, message);
    ASSERT_EQ(packets.size(), 3u);
    for (std::uint32_t i = 0; i < 3; ++i) {
        const Packet& packet = *packets[2 - i];
        EXPECT_EQ(packet.GetPacketSequence(), i + 1);
        EXPECT_EQ(packet.GetTotalPackets(), 3u);
        EXPECT_EQ(packet.GetPacketID(), packets[0]->GetPacketID());
        EXPECT_EQ(packet.GetMessageSize(), 274u);
        Header header = part(packet.GetPacketID(), i + 1, 3, 250);
        EXPECT_EQ(textOf(packet.WireBytes()), wireOf(header, message.substr(i * 100, 100)));
    }
}

TEST(Packetization, LogsWhatItDoes) {
    Packetization packetization(nullptr, kMaxPacket);
    LogCapture log;
    const auto packets = cut(packetization, pattern(101));
    const std::string id = std::to_string(packets[0]->GetPacketID());
    EXPECT_THAT(log.lines(), ElementsAre("Packetizing 101 bytes of data.", "Packets needed: 2",
                                         "send message id: " + id + ", numPackets: 2",
                                         "Freeing temporary memory.", "Freeing temporary memory.",
                                         "Returning the dequeue."));
}

TEST(Packetization, KeepsWhatTheQueueHeldAndCountsIt) {
    Packetization packetization(nullptr, kMaxPacket);
    std::deque<Packet*> out{nullptr};
    EXPECT_EQ(packetization.PacketizeData("abc", 3, out), 2u);
    EXPECT_EQ(out.back(), nullptr);
    const std::unique_ptr<Packet> packet(out.front());
    EXPECT_EQ(textOf(packet->Payload()), "abc");
}

TEST(Packetization, MakesNothingOfAMessageThatCannotBeCut) {
    std::deque<Packet*> out;
    LogCapture log(KLT::kltlogger::Error);
    EXPECT_EQ(Packetization(nullptr, 24).PacketizeData("a", 1, out), 0u);
    EXPECT_EQ(Packetization(nullptr, 23).PacketizeData("", 0, out), 0u);
    EXPECT_EQ(Packetization(nullptr, -5).PacketizeData("a", 1, out), 0u);
    Packetization packetization(nullptr, kMaxPacket);
    EXPECT_EQ(packetization.PacketizeData(nullptr, 1, out), 0u);
    EXPECT_EQ(packetization.PacketizeData("a", 0x7FFFFFE8, out), 0u);
    EXPECT_EQ(packetization.PacketizeData("a", 0xFFFFFFFF, out), 0u);
    EXPECT_EQ(log.count("Unable to packetize a message, length: "), 6);
}

TEST(Packetization, LetsAPacketOutliveTheOthersOfItsMessage) {
    std::unique_ptr<Packet> kept;
    {
        Packetization packetization(nullptr, kMaxPacket);
        auto packets = cut(packetization, pattern(250));
        kept = std::move(packets[1]);
    }
    EXPECT_EQ(textOf(kept->Payload()), pattern(250).substr(100, 100));
}

TEST(Packetization, CutsOnSeveralThreadsAtOnce) {
    Packetization packetization(nullptr, kMaxPacket);
    constexpr int kThreads = 4;
    const int messages = testsupport::rounds(500);
    std::vector<std::vector<std::uint32_t>> ids(kThreads);
    std::vector<std::thread> threads;
    for (auto& own : ids)
        threads.emplace_back([&] {
            for (int i = 0; i < messages; ++i)
                own.push_back(cut(packetization, "message").front()->GetPacketID());
        });
    for (auto& thread : threads) thread.join();
    std::set<std::uint32_t> all;
    for (const auto& own : ids) all.insert(own.begin(), own.end());
    EXPECT_EQ(all.size(), static_cast<std::size_t>(kThreads * messages));
}
