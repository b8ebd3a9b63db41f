#include "VCMessage.h"

#include "FakeChannel.h"
#include "TestSupport.h"

using namespace VirtualChannelAgent;
using namespace testsupport;

namespace {

using Lines = std::vector<std::string>;

// Little-endian, as all numbers are.
std::string number(unsigned int value) {
    std::string bytes(sizeof value, '\0');
    for (int i = 0; i < 4; ++i)
        bytes[static_cast<unsigned int>(i)] = static_cast<char>(value >> 8 * i);
    return bytes;
}

// A header and its content; `size` goes into the size field.
std::string record(char flag, unsigned char type, std::size_t size, const std::string& content) {
    return std::string(2, flag) + std::string(2, '\0') + static_cast<char>(type) +
           number(static_cast<unsigned int>(size)) + std::string(11, '\0') + content;
}
std::string block(unsigned char type, const std::string& value) {
    return record('\xCD', type, 20 + value.size(), value);
}
std::string message(unsigned char type, const std::string& blocks) {
    return record('\xCB', type, 20 + blocks.size(), blocks);
}

void setSize(std::string& bytes, std::size_t record, unsigned int size) {
    std::memcpy(bytes.data() + record + 5, &size, sizeof size);
}

std::string serialised(const VCMessage& message) {
    std::string bytes(message.byteSize(), '?');
    EXPECT_TRUE(message.serializeToArray(bytes.data(), message.byteSize()));
    return bytes;
}

bool parse(VCMessage& message, const std::string& bytes) {
    return message.parseFromArray(bytes.data(), static_cast<unsigned int>(bytes.size()));
}
bool parseInPlace(VCMessage& message, const std::string& bytes) {
    return message.parseInPlace(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

std::string routeData(const VCMessage& message) {
    char* data = nullptr;
    const unsigned int length = message.getRouteData(&data);
    return {data, length};
}

void expectInvalid(const VCDataBlock& block) {
    EXPECT_FALSE(block.isValid());
    EXPECT_EQ(block.data(), nullptr);
    EXPECT_EQ(block.size() + block.getType() + block.getIntData(), 0u);
    EXPECT_EQ(block.getStrData(), "");
}

}  // namespace

TEST(VCMessage, HasTheBytesOfTheFormat) {
    VCMessage sent;
    EXPECT_FALSE(sent.isInitialized());
    EXPECT_EQ(serialised(sent), message(0, ""));
    sent.setMessageType(CTL_S_CREATE);
    EXPECT_TRUE(sent.isInitialized());
    sent.setStreamName("Basic");
    EXPECT_EQ(sent.getTotalDataSize(), 25u);
    const std::string example(
        "\xCB\xCB\x00\x00\x06\x2D\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
        "\xCD\xCD\x00\x00\x02\x19\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
        "Basic",
        45);
    EXPECT_EQ(wireOf(sent), example);
    EXPECT_EQ(message(6, block(2, "Basic")), example);
}

TEST(VCMessage, CarriesEveryFieldToTheOtherEnd) {
    VCMessage sent;
    sent.setMessageType(CTL_CONNECTED);
    sent.addDataBlock(std::make_shared<VCDataBlock>(static_cast<unsigned char>(200), 1u));
    sent.setUnsupportedMessageType(0xFE);
    sent.setStreamName("Generic");
    sent.setStreamName("only the first counts");
    sent.setStreamType(1);
    sent.setStreamSize(0xFFFFFFFF);
    sent.setRouteData("a\0b", 3);
    sent.setSupportedStreams("Basic-Media-");
    sent.setChannelVersion("1.0.679.0");
    sent.setInternalVersion("-1");
    sent.setClientVersion("");
    LogCapture log;
    sent.addDataBlock(nullptr);
    sent.addDataBlock(std::make_shared<VCDataBlock>());

    const std::string bytes = message(
        4, block(200, number(1)) + block(1, number(0xFE)) + block(2, "Generic") +
               block(2, "only the first counts") + block(3, number(1)) +
               block(4, number(0xFFFFFFFF)) + block(5, std::string("a\0b", 3)) +
               block(6, "Basic-Media-") + block(7, "1.0.679.0") + block(8, "-1") + block(9, ""));
    EXPECT_EQ(serialised(sent), bytes);
    VCMessage copied;
    VCMessage inPlace;
    ASSERT_TRUE(parse(copied, bytes));
    ASSERT_TRUE(parseInPlace(inPlace, bytes));
    for (const VCMessage* received : {&copied, &inPlace}) {
        EXPECT_EQ(testsupport::textOf(*received),
                  std::string("4 Generic 1 4294967295 Basic-Media- 1.0.679.0 -1  a\0b 254", 57));
        EXPECT_EQ(serialised(*received), bytes);
    }
    EXPECT_EQ(log.lines(), Lines{});
    // A long text may have been announced only.
    const std::string announced = message(4, block(7, std::string(100'000, '\0')));
    ASSERT_TRUE(parse(copied, announced) && parseInPlace(inPlace, announced));
    EXPECT_EQ(copied.getChannelVersion().size(), 100'000U);
    EXPECT_EQ(inPlace.getChannelVersion().size(), 65'536U);
}

TEST(VCMessage, LogsWhichFieldIsMissing) {
    const VCMessage empty;
    char* data = nullptr;
    LogCapture log;
    EXPECT_EQ(testsupport::textOf(empty), "0");  // has no field
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(empty.getUnsupportedMessageType() + empty.getStreamType() + empty.getStreamSize() +
                  empty.getRouteData(&data),
              0u);
    EXPECT_EQ(empty.getStreamName() + empty.getSupportedStreams() + empty.getChannelVersion() +
                  empty.getInternalVersion() + empty.getClientVersion(),
              "");
    EXPECT_EQ(data, nullptr);
    Lines lines = log.lines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines,
              (Lines{"getClientVersion failed", "getMessageType failed", "getRouteData failed",
                     "getStreamName failed", "getStreamSize failed", "getStreamType failed",
                     "getSupportedStreams failed", "getVersion failed", "getVersion failed"}));
}

TEST(VCMessage, MayHaveAnyTypeAndAnyChecksum) {
    for (const int type : {0, 8, 11, 12, 255}) {
        const std::string sent = message(static_cast<unsigned char>(type), block(2, "Basic"));
        std::string received = sent;
        received[2] = received[3] = '\x7F';  // the checksum
        VCMessage message;
        ASSERT_TRUE(parse(message, received));
        EXPECT_EQ(message.isMessageTypeSupported(), type < 12);
        EXPECT_EQ(message.getMessageType(), type < 12 ? type : 0);
        EXPECT_EQ(message.rawMessageType(), type);
        EXPECT_EQ(message.getStreamName(), "Basic");
        EXPECT_EQ(wireOf(message), sent);
        ASSERT_TRUE(parseInPlace(message, received));
        EXPECT_EQ(serialised(message), sent);
    }
}

TEST(VCMessage, NeedsABufferOfItsSize) {
    const VCMessage message = routed("Media", "data");
    std::string buffer(message.byteSize(), '?');
    LogCapture log;
    EXPECT_FALSE(message.serializeToArray(nullptr, 1000));
    EXPECT_FALSE(message.serializeToArray(buffer.data(), message.byteSize() - 1));
    EXPECT_EQ(log.lines(), Lines{"Buffer size is not enough."});
    EXPECT_EQ(buffer, std::string(message.byteSize(), '?'));
}

// Damages a valid message of two blocks, at 20 and 45, in one place at a time.
TEST(VCMessage, ReportsWhatIsWrongWithAReceivedMessageAndKeepsTheBlocksBeforeIt) {
    const std::string good = message(7, block(2, "Basic") + block(3, number(1)));
    const auto cutTo = [](unsigned int size) {
        return [size](std::string& bytes) {
            bytes.resize(size);
            setSize(bytes, 0, size);
        };
    };
    const auto blockSize = [](unsigned int size) {
        return [size](std::string& bytes) { setSize(bytes, 45, size); };
    };
    const struct {
        const char* what;
        std::function<void(std::string&)> damage;
        std::string line = "Parse error.";
    } cases[] = {
        {"nothing", [](auto& bytes) { bytes.clear(); }, "Wrong message received, size: 0"},
        {"header cut off", [](auto& bytes) { bytes.resize(19); },
         "Wrong message received, size: 19"},
        {"flag of a block", [](auto& bytes) { bytes[1] = '\xCD'; },
         "Wrong message received, data flag not matched"},
        {"one byte short", [](auto& bytes) { bytes.pop_back(); },
         "Wrong message received. Actual message size 69 != received size 68"},
        {"size of 0", [](auto& bytes) { setSize(bytes, 0, 0); },
         "Wrong message received. Actual message size 0 != received size 69"},
        {"one byte of a block", cutTo(46)},
        {"19 bytes of a block", cutTo(64)},
        {"block size 0", blockSize(0)},
        {"block size 19", blockSize(19)},
        {"block one byte short", blockSize(23)},
        {"block one byte long", blockSize(25)},
        {"block size wraps", blockSize(0xFFFFFFFF)},
        {"flag of a message", [](auto& bytes) { bytes[45] = bytes[46] = '\xCB'; }},
    };
    for (const auto& [what, damage, line] : cases) {
        SCOPED_TRACE(what);
        std::string bytes = good;
        damage(bytes);
        VCMessage received = routed("Media", "of an earlier use");
        LogCapture log(KLT::kltlogger::Trace, true);
        EXPECT_FALSE(parseInPlace(received, bytes));
        EXPECT_FALSE(parse(received, bytes));
        EXPECT_EQ(log.lines(), Lines{line}) << "the second is only counted";
        EXPECT_FALSE(received.hasRouteData());
        EXPECT_EQ(received.isInitialized(), line == "Parse error.");
        if (!received.isInitialized()) continue;
        EXPECT_EQ(received.getMessageType(), CTL_S_CREATED);
        EXPECT_EQ(received.getStreamName(), "Basic");
        VCMessage again;
        EXPECT_TRUE(parse(again, serialised(received)));
    }
    VCMessage received;
    EXPECT_FALSE(received.parseFromArray(nullptr, 45));
}

TEST(VCMessage, LeavesOutAFieldThatDoesNotFit) {
    VCMessage message;
    message.setStreamName("Basic");
    LogCapture log;
    message.setRouteData(nullptr, 0xFFFFFFF0);
    message.setRouteData(nullptr, 0xFFFFFFFF - 40);  // a block would fit, the message would not
    EXPECT_EQ(log.lines(),
              (Lines{"Malloc failed, size: 4294967300", "Malloc failed, size: 4294967275"}));
    EXPECT_FALSE(message.hasRouteData());
    EXPECT_EQ(message.wireBytesBefore(0xFFFFFFFF - 40).size(), 0U);
    const auto head = message.wireBytesBefore(5);
    message.setRouteData(nullptr, 5);
    EXPECT_EQ(routeData(message), std::string(5, '\0'));
    EXPECT_TRUE(std::ranges::equal(std::span(head.data(), head.size()),
                                   message.wireBytes().first(message.byteSize() - 5)));
    for (unsigned int i = 0; i < 2000; ++i) message.setStreamSize(i);
    EXPECT_EQ(message.getTotalDataSize(), 2 * 25u + 2000 * 24u);
    VCMessage received;
    EXPECT_TRUE(parse(received, serialised(message)));
}

TEST(VCMessage, CopiesAreIndependentOfEachOtherAndOfTheReceivedBytes) {
    for (const std::size_t length : {0ul, 1ul, 90ul, 150ul, 10'000ul, 64ul << 20}) {
        if (testsupport::kSanitized && length > 1ul << 20) continue;
        const std::string data(length, 'd');
        const VCMessage original = routed("Media", data);
        auto bytes = std::make_unique<std::string>(serialised(original));
        VCMessage sharing = original;
        EXPECT_EQ(sharing.wireBytes().data() == original.wireBytes().data(),
                  original.byteSize() > 240);
        VCMessage view;
        ASSERT_TRUE(parseInPlace(view, *bytes));
        EXPECT_EQ(view.wireBytes().data(), static_cast<const void*>(bytes->data()));
        const VCMessage copy = view;
        for (VCMessage* changed : {&sharing, &view}) {
            changed->setClientVersion("more");
            changed->setMessageType(CTL_NOOP);
        }
        EXPECT_TRUE(serialised(original) == *bytes);
        bytes.reset();
        EXPECT_TRUE(serialised(copy) == serialised(original));
        for (const VCMessage* changed : {&sharing, &view}) {
            EXPECT_EQ(changed->byteSize(), original.byteSize() + 24);
            EXPECT_EQ(changed->getClientVersion(), "more");
            EXPECT_TRUE(changed->hasRouteData());
            EXPECT_TRUE(routeData(*changed) == data) << length;
        }
    }
}

TEST(VCDataBlock, HasTheBytesOfTheFormatAndGivesItsValueBack) {
    const auto bytesOf = [](const VCDataBlock& block) {
        return std::string(block.data(), block.size());
    };
    EXPECT_EQ(bytesOf(VCDataBlock(3, 0x01020304u)), block(3, number(0x01020304)));
    EXPECT_EQ(bytesOf(VCDataBlock(5, "\0x", 2)), block(5, std::string("\0x", 2)));
    EXPECT_EQ(bytesOf(VCDataBlock(5, nullptr, 3u)), block(5, std::string(3, '\0')));
    EXPECT_EQ(bytesOf(VCDataBlock(9, std::vector<unsigned int>{1, 0xFF000000})),
              block(9, number(1) + number(0xFF000000)));
    std::string received = block(2, "four");
    received[15] = 'r';  // reserved bytes may hold anything, and are kept
    const VCDataBlock text(received.data(), 24u);
    EXPECT_EQ(bytesOf(text), received);
    EXPECT_EQ(text.getType(), 2);
    EXPECT_EQ(text.getStrData(), "four");
    EXPECT_EQ(text.getIntData(), 0x72756F66u);  // "four" as an integer
    EXPECT_EQ(VCDataBlock(2, std::string("fives")).getIntData(), 0u);
    char* value = nullptr;
    EXPECT_EQ(text.getByteData(nullptr) + VCDataBlock(2, std::string()).getByteData(&value), 0u);
    EXPECT_EQ(text.getByteData(&value), 4u);
    EXPECT_EQ(value, text.data() + 20);
}

TEST(VCDataBlock, IsInvalidWhenItIsNotABlock) {
    const std::string good = block(2, "Basic");
    for (const auto& bytes :
         Lines{good.substr(0, 24), good + "!", record('\xCB', 2, 25, "Basic"),
               record('\xCD', 2, 26, "Basic"), record('\xCD', 2, 0, ""), good.substr(0, 19), ""}) {
        const auto length = static_cast<unsigned int>(bytes.size());
        EXPECT_FALSE(VCDataBlock::verifyData(bytes.data(), length));
        expectInvalid(VCDataBlock(bytes.data(), length));
    }
    VCDataBlock cleared(2, std::string("Basic"));
    cleared.clear();
    expectInvalid(cleared);
    const LogCapture log;
    expectInvalid(VCDataBlock(5, nullptr, 0xFFFFFFF0u));
    EXPECT_EQ(log.lines(), Lines{"Malloc failed, size: 4294967300"});
}
