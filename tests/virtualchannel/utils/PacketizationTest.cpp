#include <gtest/gtest.h>

#include <ctime>

#include "LogCapture.h"
#include "PacketBytes.h"

using namespace packettest;
using NorvoVirtualChannel::UIDGenerator;
using testsupport::LogCapture;

namespace {

constexpr int kMaxPacket = 124;  // 100 bytes of payload

}  // namespace

TEST(Packetization, CutsAtTheLargestPayloadAndPutsTheLastPacketFirst) {
    LogCapture log;
    Packetization packetization(nullptr, kMaxPacket);
    const std::pair<std::size_t, std::uint32_t> cases[] = {
        {0, 1}, {1, 1}, {99, 1}, {100, 1}, {101, 2}, {200, 2}, {201, 3}, {12345, 124}};
    for (const auto& [length, count] : cases) {
        SCOPED_TRACE(length);
        log.clear();
        const std::string message = pattern(length);
        const auto packets = cut(packetization, message);
        ASSERT_EQ(packets.size(), count);
        const auto id = packets[0]->GetPacketID();
        EXPECT_EQ(log.lines()[0], "Packetizing " + std::to_string(length) + " bytes of data.");
        EXPECT_EQ(log.lines()[2], "send message id: " + std::to_string(id) +
                                      ", numPackets: " + std::to_string(count));
        for (std::uint32_t i = 0; i < count; ++i) {
            const Header header = part(id, i + 1, count, static_cast<std::uint32_t>(length));
            EXPECT_EQ(textOf(packets[count - 1 - i]->WireBytes()),
                      wireOf(header, message.substr(i * 100, 100)));
        }
    }
}

TEST(Packetization, KeepsWhatTheQueueHeldAndCountsIt) {
    std::deque<Packet*> out{nullptr};
    EXPECT_EQ(Packetization(nullptr, kMaxPacket).PacketizeData("abc", 3, out), 2u);
    EXPECT_EQ(out.back(), nullptr);
    const std::unique_ptr<Packet> packet(out.front());
    EXPECT_EQ(textOf(packet->Payload()), "abc");
}

TEST(Packetization, MakesNothingOfAMessageThatCannotBeCut) {
    const std::tuple<int, const char*, unsigned int> cases[] = {{24, "a", 1},
                                                                {23, "", 0},
                                                                {-5, "a", 1},
                                                                {kMaxPacket, nullptr, 1},
                                                                {kMaxPacket, "a", 0x7FFFFFE8},
                                                                {kMaxPacket, "a", 0xFFFFFFFF}};
    LogCapture log(KLT::kltlogger::Error);
    for (const auto& [packetSize, data, length] : cases) {
        std::deque<Packet*> out;
        EXPECT_EQ(Packetization(nullptr, packetSize).PacketizeData(data, length, out), 0u);
    }
    EXPECT_EQ(log.count("Unable to packetize a message, length: "), 6);
}

TEST(Packetization, LetsAPacketOutliveTheOthersOfItsMessage) {
    const auto kept =
        std::move(cut(*std::make_unique<Packetization>(nullptr, kMaxPacket), pattern(250))[1]);
    EXPECT_EQ(textOf(kept->Payload()), pattern(250).substr(100, 100));
}

TEST(UIDGenerator, StartsAtTheTimeAndGoesOnAtZeroAfterTheLargestID) {
    const auto before = static_cast<unsigned int>(time(nullptr));
    EXPECT_GT(UIDGenerator::GetInstance()->GetNextUID(),
              before - 600);  // others may have taken IDs
    UIDGenerator generator(0xFFFFFFFE);
    EXPECT_EQ(generator.GetNextUID(), 0xFFFFFFFFu);
    EXPECT_EQ(generator.GetNextUID(), 0u);
}
