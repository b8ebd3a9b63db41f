#include <gmock/gmock.h>

#include <functional>

#include "LogCapture.h"
#include "PacketBytes.h"

using namespace packettest;
using testing::ElementsAre;
using testsupport::LogCapture;

namespace {

constexpr char kBroken[] = "Broken packet received. Ignoring it!";
constexpr char kBadSize[] = "The packet size information is incorrect.";
constexpr char kOtherVersion[] =
    "Packet belongs to an incompatible version of the protocol and cannot be used.";

std::string goodPacket() { return wireOf(part(1000, 1, 1, 10), "0123456789"); }

void setWord(std::string& wire, std::size_t offset, std::uint32_t value) {
    std::memcpy(wire.data() + offset, &value, sizeof value);
}

}  // namespace

TEST(Packet, HasTheBytesOfTheFormat) {
    Header header = part(1000, 1, 1, 10);
    header.payloadSize = 10;
    const Packet packet(header, "0123456789");
    const std::string expected(
        "\x5B\x00\x5B\x00\x01\x00\x00\x00\x01\x00\x00\x00\xE8\x03\x00\x00"
        "\x0A\x00\x00\x00\x22\x00\x00\x00"
        "0123456789",
        34);
    std::string copied(packet.GetPacketSize(), '\0');
    EXPECT_EQ(packet.GetPacketData(copied.data()), 34u);
    EXPECT_EQ(copied, expected);
    EXPECT_EQ(textOf(packet.WireBytes()), expected);
}

TEST(Packet, ReadsEveryFieldOfAReceivedPacket) {
    const std::string wire = wireOf(part(77, 2, 3, 50), "twelve bytes");
    for (const bool borrowed : {false, true}) {
        const auto length = static_cast<unsigned int>(wire.size());
        const Packet copy(wire.data(), length);
        const Packet view = Packet::Borrow(wire.data(), length);
        const Packet& packet = borrowed ? view : copy;
        ASSERT_TRUE(packet.isPacketValid());
        EXPECT_EQ(packet.GetPacketID(), 77u);
        EXPECT_EQ(packet.GetPacketSequence(), 2u);
        EXPECT_EQ(packet.GetTotalPackets(), 3u);
        EXPECT_EQ(packet.GetPayloadSize(), 12u);
        EXPECT_EQ(packet.GetPacketSize(), 36u);
        EXPECT_EQ(packet.GetMessageSize(), 74u);
        EXPECT_EQ(textOf(packet.Payload()), "twelve bytes");
        EXPECT_EQ(textOf(packet.WireBytes()), wire);
        EXPECT_EQ(packet.WireBytes().data() == static_cast<const void*>(wire.data()), borrowed);
    }
}

// One field of a good packet is damaged at a time.
TEST(Packet, ReportsWhatIsWrongWithAReceivedPacket) {
    const struct {
        const char* what;
        std::function<void(std::string&)> damage;
        const char* line;
    } cases[] = {
        {"version one lower", [](auto& wire) { wire[2] = 0x5A; }, kOtherVersion},
        {"high version byte", [](auto& wire) { wire[3] = 1; }, kOtherVersion},
        {"one byte short", [](auto& wire) { wire.pop_back(); }, kBroken},
        {"one byte long", [](auto& wire) { wire.push_back('x'); }, kBroken},
        {"payload size one more", [](auto& wire) { setWord(wire, 16, 11); }, kBroken},
        {"payload size + 24 wraps to 0", [](auto& wire) { setWord(wire, 16, 0xFFFFFFE8); },
         kBroken},
        {"payload size + 24 wraps to 34", [](auto& wire) { setWord(wire, 16, 0xFFFFFFF2); },
         kBroken},
        {"message smaller than payload", [](auto& wire) { setWord(wire, 20, 33); }, kBadSize},
        {"message smaller than a header", [](auto& wire) { setWord(wire, 20, 23); }, kBadSize},
        {"message size 0", [](auto& wire) { setWord(wire, 20, 0); }, kBadSize},
        {"header cut off", [](auto& wire) { wire.resize(23); }, kBroken},
        {"nothing", [](auto& wire) { wire.clear(); }, kBroken},
    };
    for (const auto& [what, damage, line] : cases) {
        SCOPED_TRACE(what);
        std::string wire = goodPacket();
        damage(wire);
        LogCapture log(KLT::kltlogger::Warning);
        const Packet packet(wire.data(), static_cast<unsigned int>(wire.size()));
        EXPECT_FALSE(packet.isPacketValid());
        EXPECT_THAT(log.lines(), ElementsAre(line));
        EXPECT_TRUE(packet.WireBytes().empty());
        EXPECT_EQ(packet.GetPayloadData(nullptr), 0u);
        EXPECT_FALSE(
            Packet::Borrow(wire.data(), static_cast<unsigned int>(wire.size())).isPacketValid());
    }
}

TEST(Packet, OfNullBytesIsBroken) {
    LogCapture log;
    EXPECT_FALSE(Packet(nullptr, 34u).isPacketValid());
    EXPECT_THAT(log.lines(), ElementsAre("Retreiving the header from the packet.", kBroken));
}

TEST(Packet, TakesAnySecondaryVersionAndAnyCounters) {
    std::string wire = goodPacket();
    setWord(wire, 0, 0x005BFFFF);
    setWord(wire, 4, 0xFFFFFFFF);
    setWord(wire, 8, 0);
    LogCapture log;
    EXPECT_TRUE(Packet(wire.data(), 34u).isPacketValid());
    EXPECT_THAT(log.lines(), ElementsAre("Retreiving the header from the packet.",
                                         "Retrieving the data from the packet."));
}

TEST(Packet, WithoutPayloadIsValid) {
    const std::string wire = wireOf(part(1, 1, 1, 0), "");
    const Packet received(wire.data(), 24u);
    EXPECT_TRUE(received.isPacketValid());
    EXPECT_EQ(received.WireBytes().size(), 24u);
    EXPECT_TRUE(Packet(part(1, 1, 1, 0), nullptr).isPacketValid());
}

TEST(Packet, BuiltFromAWrongHeaderSaysSo) {
    LogCapture log;
    Header header = part(1, 1, 1, 4);
    header.payloadSize = 4;
    header.protocolVersion = 92;
    EXPECT_FALSE(Packet(header, "four").isPacketValid());
    header.protocolVersion = 91;
    header.payloadSize = 5;
    EXPECT_FALSE(Packet(header, "five.").isPacketValid());
    header.payloadSize = 0xFFFFFFE8;
    EXPECT_FALSE(Packet(header, "wraps").isPacketValid());
    EXPECT_THAT(log.lines(), ElementsAre("Invalid version of the protocol specified in header (92)",
                                         kBadSize, kBadSize));
}

TEST(Packet, OfASplitMessageReturnsTheMessageSizeWhenCopied) {
    const std::string wire = wireOf(part(5, 1, 2, 100), "first");
    const Packet packet(wire.data(), static_cast<unsigned int>(wire.size()));
    LogCapture log;
    EXPECT_EQ(packet.GetPacketData(nullptr), 124u);
    EXPECT_THAT(log.lines(), ElementsAre());
    std::string copied(packet.GetPacketSize(), '\0');
    EXPECT_EQ(packet.GetPacketData(copied.data()), 124u);
    EXPECT_EQ(copied, wire);
    EXPECT_THAT(log.lines(), ElementsAre("Copying the header into the new data structure.",
                                         "Copying the payload into the new data structure."));
}

TEST(Packet, ThatIsInvalidSaysSoWhenItIsRead) {
    const Packet packet(nullptr, 0u);
    LogCapture log;
    char out[24];
    EXPECT_EQ(packet.GetPayloadData(out), 0u);
    EXPECT_EQ(packet.GetPacketData(out), 0u);
    EXPECT_THAT(log.lines(), ElementsAre("The payload is NULL.", "The payload is NULL."));
    EXPECT_FALSE(std::unique_ptr<Packet>(packet.CopyPacket())->isPacketValid());
}

TEST(Packet, CopyOutlivesItsOriginal) {
    std::string wire = goodPacket();
    auto original = std::make_unique<Packet>(wire.data(), 34u);
    const std::unique_ptr<Packet> copy(original->CopyPacket());
    original.reset();
    EXPECT_EQ(textOf(copy->WireBytes()), wire);
}

TEST(Packet, InitialiseClearsAllCountersButTheMessageSize) {
    const std::string wire = goodPacket();
    Packet packet(wire.data(), 34u);
    packet.Initialise();
    EXPECT_EQ(packet.GetPacketID() + packet.GetPacketSequence() + packet.GetTotalPackets() +
                  packet.GetPayloadSize(),
              0u);
    EXPECT_EQ(packet.GetMessageSize(), 34u);
    std::string header(24, '\0');
    packet.GetPacketData(header.data());
    EXPECT_EQ(header.substr(0, 4), std::string("\x5B\x00\x5B\x00", 4));
}

TEST(Packet, SortsBySequenceAsSignedNumbers) {
    const Packet one(part(1, 1, 2, 0), "");
    const Packet two(part(1, 2, 2, 0), "");
    const Packet negative(part(1, 0xFFFFFFFF, 2, 0), "");
    EXPECT_TRUE(Packet::PacketSort(&one, &two));
    EXPECT_FALSE(Packet::PacketSort(&two, &one));
    EXPECT_FALSE(Packet::PacketSort(&one, &one));
    EXPECT_TRUE(Packet::PacketSort(&negative, &one));
}
