
#include <ctime>

#include "PacketBytes.h"
#include "TestSupport.h"

using namespace packettest;
using NorvoVirtualChannel::UIDGenerator;
using testsupport::LogCapture;

namespace {

using Lines = std::vector<std::string>;

constexpr int kMaxPacket = 124;  // 100 bytes of payload
constexpr char kBroken[] = "Broken packet received. Ignoring it!";
constexpr char kBadSize[] = "The packet size information is incorrect.";
constexpr char kOtherVersion[] =
    "Packet belongs to an incompatible version of the protocol and cannot be used.";

using Numbers = std::vector<std::uint32_t>;

Numbers numbersOf(const Packet& packet) {
    return {packet.GetPacketID(),    packet.GetPacketSequence(), packet.GetTotalPackets(),
            packet.GetPayloadSize(), packet.GetPacketSize(),     packet.GetMessageSize()};
}

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
    const auto length = static_cast<unsigned int>(wire.size());
    auto original = std::make_unique<Packet>(wire.data(), length);
    const std::unique_ptr<const Packet> copy(original->CopyPacket());
    original.reset();
    const Packet view = Packet::Borrow(wire.data(), length);
    for (const Packet* packet : {copy.get(), &view}) {
        ASSERT_TRUE(packet->isPacketValid());
        EXPECT_EQ(numbersOf(*packet), (Numbers{77, 2, 3, 12, 36, 74}));
        EXPECT_EQ(textOf(packet->Payload()), "twelve bytes");
        EXPECT_EQ(textOf(packet->WireBytes()), wire);
        const bool borrowed = packet->WireBytes().data() == static_cast<const void*>(wire.data());
        EXPECT_EQ(borrowed, packet == &view);
    }
}

// Damages one field of a valid packet at a time.
TEST(Packet, ReportsWhatIsWrongWithAReceivedPacket) {
    const std::tuple<const char*, std::function<void(std::string&)>, const char*> cases[] = {
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
        LogCapture log(KLT::kltlogger::Warning, true);
        const Packet packet(wire.data(), static_cast<unsigned int>(wire.size()));
        EXPECT_FALSE(packet.isPacketValid());
        EXPECT_TRUE(packet.WireBytes().empty());
        EXPECT_FALSE(
            Packet::Borrow(wire.data(), static_cast<unsigned int>(wire.size())).isPacketValid());
        EXPECT_EQ(log.lines(), Lines{line}) << "the second is only counted";
    }
}

TEST(Packet, TakesAnySecondaryVersionAnyCountersAndNoPayload) {
    std::string wire = goodPacket();
    setWord(wire, 0, 0x005BFFFF);
    setWord(wire, 4, 0xFFFFFFFF);
    setWord(wire, 8, 0);
    LogCapture log;
    EXPECT_TRUE(Packet(wire.data(), 34u).isPacketValid());
    EXPECT_EQ(log.lines(), (Lines{"Retreiving the header from the packet.",
                                  "Retrieving the data from the packet."}));
    EXPECT_TRUE(Packet(wireOf(part(1, 1, 1, 0), "").data(), 24u).isPacketValid());
    EXPECT_TRUE(Packet(part(1, 1, 1, 0), nullptr).isPacketValid());
}

TEST(Packet, BuiltFromAWrongHeaderSaysSo) {
    LogCapture log;
    Header header = part(1, 1, 1, 4);
    header.payloadSize = 4;
    header.protocolVersion = 92;
    EXPECT_FALSE(Packet(header, "four").isPacketValid());
    header.protocolVersion = 91;
    for (const std::uint32_t tooMuch : {5u, 0xFFFFFFE8u}) {
        header.payloadSize = tooMuch;
        EXPECT_FALSE(Packet(header, "five.").isPacketValid());
    }
    EXPECT_EQ(log.lines(), (Lines{"Invalid version of the protocol specified in header (92)",
                                  kBadSize, kBadSize}));
}

TEST(Packet, OfASplitMessageReturnsTheMessageSizeWhenCopied) {
    const std::string wire = wireOf(part(5, 1, 2, 100), "first");
    const Packet packet(wire.data(), static_cast<unsigned int>(wire.size()));
    LogCapture log;
    EXPECT_EQ(packet.GetPacketData(nullptr), 124u);
    std::string copied(packet.GetPacketSize(), '\0');
    EXPECT_EQ(packet.GetPacketData(copied.data()), 124u);
    EXPECT_EQ(copied, wire);
    EXPECT_EQ(log.lines(), (Lines{"Copying the header into the new data structure.",
                                  "Copying the payload into the new data structure."}));
}

TEST(Packet, ThatIsInvalidSaysSoWhenItIsRead) {
    LogCapture log;
    const Packet packet(nullptr, 34u);
    EXPECT_FALSE(packet.isPacketValid());
    char out[24];
    EXPECT_EQ(packet.GetPayloadData(out) + packet.GetPacketData(out), 0u);
    EXPECT_EQ(log.lines(), (Lines{"Retreiving the header from the packet.", kBroken,
                                  "The payload is NULL.", "The payload is NULL."}));
    EXPECT_FALSE(std::unique_ptr<Packet>(packet.CopyPacket())->isPacketValid());
}

TEST(Packet, InitialiseClearsAllCountersButTheMessageSize) {
    Packet packet(goodPacket().data(), 34u);
    packet.Initialise();
    EXPECT_EQ(numbersOf(packet), (Numbers{0, 0, 0, 0, 24, 34}));
}

TEST(Packet, SortsBySequenceAsSignedNumbers) {
    const Packet one(part(1, 1, 2, 0), "");
    const Packet negative(part(1, 0xFFFFFFFF, 2, 0), "");
    EXPECT_TRUE(Packet::PacketSort(&negative, &one));
    EXPECT_FALSE(Packet::PacketSort(&one, &negative));
    EXPECT_FALSE(Packet::PacketSort(&one, &one));
}

// ---- Cutting messages

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
