#include "VCMessage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "FakeChannel.h"
#include "LogCapture.h"
#include "Rounds.h"

using namespace VirtualChannelAgent;
using testsupport::LogCapture;
using testsupport::routed;
using testsupport::wireOf;

namespace {

using Lines = std::vector<std::string>;

std::string serialised(const VCMessage& message) {
    std::string bytes(message.byteSize(), '?');
    EXPECT_TRUE(message.serializeToArray(bytes.data(), message.byteSize()));
    return bytes;
}

bool parse(VCMessage& message, const std::string& bytes) {
    return message.parseFromArray(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

void setSize(std::string& bytes, std::size_t record, unsigned int size) {
    std::memcpy(bytes.data() + record + 5, &size, sizeof size);
}

// CTL_S_CREATE with the field StreamName "Basic".
std::string example() {
    return {
        "\xCB\xCB\x00\x00\x06\x2D\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
        "\xCD\xCD\x00\x00\x02\x19\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
        "Basic",
        45};
}

std::string routeData(const VCMessage& message) {
    char* data = nullptr;
    const unsigned int length = message.getRouteData(&data);
    return {data, length};
}

}  // namespace

TEST(VCMessage, HasTheBytesOfTheFormat) {
    VCMessage message;
    message.setMessageType(CTL_S_CREATE);
    message.setStreamName("Basic");
    EXPECT_EQ(message.getTotalDataSize(), 25u);
    EXPECT_EQ(serialised(message), example());
    EXPECT_EQ(wireOf(message), example());

    std::string noop(20, '\0');
    noop[0] = noop[1] = '\xCB';
    setSize(noop, 0, 20);
    VCMessage empty;
    EXPECT_FALSE(empty.isInitialized());
    EXPECT_EQ(serialised(empty), noop);
    ASSERT_TRUE(parse(empty, noop));
    EXPECT_TRUE(empty.isInitialized());
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

    const std::string bytes = serialised(sent);
    VCMessage copied;
    VCMessage inPlace;
    ASSERT_TRUE(parse(copied, bytes));
    ASSERT_TRUE(inPlace.parseInPlace(bytes.data(), static_cast<unsigned int>(bytes.size())));
    for (const VCMessage* received : {&copied, &inPlace}) {
        EXPECT_EQ(received->getMessageType(), CTL_CONNECTED);
        EXPECT_EQ(received->getUnsupportedMessageType(), 0xFE);
        EXPECT_EQ(received->getStreamName(), "Generic");
        EXPECT_EQ(received->getStreamType(), 1u);
        EXPECT_EQ(received->getStreamSize(), 0xFFFFFFFFu);
        EXPECT_EQ(routeData(*received), std::string("a\0b", 3));
        EXPECT_EQ(received->getSupportedStreams(), "Basic-Media-");
        EXPECT_EQ(received->getChannelVersion(), "1.0.679.0");
        EXPECT_EQ(received->getInternalVersion(), "-1");
        EXPECT_EQ(received->getClientVersion(), "");
        EXPECT_TRUE(received->hasClientVersion());
        EXPECT_EQ(serialised(*received), bytes);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(VCMessage, SaysWhichFieldIsMissing) {
    const VCMessage message;
    char* data = nullptr;
    LogCapture log;
    EXPECT_EQ(message.getUnsupportedMessageType() + message.getStreamType() +
                  message.getStreamSize() + message.getRouteData(&data),
              0u);
    EXPECT_EQ(message.getStreamName() + message.getSupportedStreams() +
                  message.getChannelVersion() + message.getInternalVersion() +
                  message.getClientVersion(),
              "");
    EXPECT_EQ(data, nullptr);
    Lines lines = log.lines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines,
              (Lines{"getClientVersion failed", "getMessageType failed", "getRouteData failed",
                     "getStreamName failed", "getStreamSize failed", "getStreamType failed",
                     "getSupportedStreams failed", "getVersion failed", "getVersion failed"}));
    EXPECT_FALSE(message.hasUnsupportedMessageType() || message.hasStreamName() ||
                 message.hasStreamType() || message.hasStreamSize() || message.hasRouteData() ||
                 message.hasSupportedStreams() || message.hasChannelVersion() ||
                 message.hasInternalVersion() || message.hasClientVersion());
}

TEST(VCMessage, OfAnUnknownTypeReadsAsNoOperation) {
    std::string bytes = example();
    for (const int type : {8, 11, 12, 255}) {
        bytes[4] = static_cast<char>(type);
        VCMessage message;
        ASSERT_TRUE(parse(message, bytes));
        EXPECT_EQ(message.isMessageTypeSupported(), type < 12);
        EXPECT_EQ(message.getMessageType(), type < 12 ? type : 0);
        EXPECT_EQ(message.rawMessageType(), type);
        EXPECT_EQ(message.getStreamName(), "Basic");
    }
}

TEST(VCMessage, NeedsABufferOfItsSize) {
    const VCMessage message = routed("Media", "data");
    std::string buffer(message.byteSize(), '?');
    LogCapture log;
    EXPECT_FALSE(message.serializeToArray(nullptr, 1000));
    EXPECT_FALSE(message.serializeToArray(buffer.data(), 0));
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_FALSE(message.serializeToArray(buffer.data(), message.byteSize() - 1));
    EXPECT_EQ(log.lines(), Lines{"Buffer size is not enough."});
    EXPECT_EQ(buffer, std::string(message.byteSize(), '?'));
}

// One field of a good message is damaged at a time.
TEST(VCMessage, ReportsWhatIsWrongWithAReceivedMessage) {
    constexpr char kParseError[] = "Parse error.";
    const auto cutTo = [](unsigned int size) {
        return [size](std::string& bytes) {
            bytes.resize(size);
            setSize(bytes, 0, size);
        };
    };
    const auto blockSize = [](unsigned int size) {
        return [size](std::string& bytes) { setSize(bytes, 20, size); };
    };
    const struct {
        const char* what;
        std::function<void(std::string&)> damage;
        const char* line;
    } cases[] = {
        {"nothing", [](auto& bytes) { bytes.clear(); }, "Wrong message received, size: 0"},
        {"header cut off", [](auto& bytes) { bytes.resize(19); },
         "Wrong message received, size: 19"},
        {"flag of a block", [](auto& bytes) { bytes[1] = '\xCD'; },
         "Wrong message received, data flag not matched"},
        {"one byte short", [](auto& bytes) { bytes.pop_back(); },
         "Wrong message received. Actual message size 45 != received size 44"},
        {"size of 0", [](auto& bytes) { setSize(bytes, 0, 0); },
         "Wrong message received. Actual message size 0 != received size 45"},
        {"one byte after the header", cutTo(21), kParseError},
        {"19 bytes after the header", cutTo(39), kParseError},
        {"block size 0", blockSize(0), kParseError},
        {"block size 19", blockSize(19), kParseError},
        {"block one byte short", blockSize(24), kParseError},
        {"block one byte long", blockSize(26), kParseError},
        {"block size wraps", blockSize(0xFFFFFFFF), kParseError},
        {"flag of a message", [](auto& bytes) { bytes[20] = bytes[21] = '\xCB'; }, kParseError},
    };
    for (const auto& [what, damage, line] : cases) {
        SCOPED_TRACE(what);
        std::string bytes = example();
        damage(bytes);
        VCMessage message = routed("Media", "of an earlier use");
        LogCapture log;
        EXPECT_FALSE(parse(message, bytes));
        EXPECT_FALSE(message.parseInPlace(bytes.data(), static_cast<unsigned int>(bytes.size())));
        EXPECT_EQ(log.lines(), (Lines{line, line}));
        EXPECT_FALSE(message.hasRouteData());
        EXPECT_EQ(message.isInitialized(), line == std::string(kParseError));
    }
    VCMessage message;
    EXPECT_FALSE(message.parseFromArray(nullptr, 45));
}

TEST(VCMessage, TakesAnyChecksumAndSendsNone) {
    std::string bytes = example();
    bytes[2] = bytes[3] = '\x7F';
    VCMessage message;
    ASSERT_TRUE(parse(message, bytes));
    EXPECT_EQ(wireOf(message), example());
    ASSERT_TRUE(message.parseInPlace(bytes.data(), 45));
    EXPECT_EQ(serialised(message), example());
}

TEST(VCMessage, KeepsTheBlocksBeforeABrokenOne) {
    const std::string whole = serialised(testsupport::aboutStream(CTL_S_CREATED, "Basic", 1));
    for (const bool isTooLong : {false, true}) {
        std::string bytes = whole;
        isTooLong ? setSize(bytes, 45, 1000) : void(bytes[45] = 0);
        VCMessage received;
        EXPECT_FALSE(parse(received, bytes));
        EXPECT_EQ(received.getMessageType(), CTL_S_CREATED);
        EXPECT_EQ(received.getStreamName(), "Basic");
        EXPECT_EQ(received.byteSize(), 45u);
        VCMessage again;
        EXPECT_TRUE(parse(again, serialised(received)));
    }
}

TEST(VCMessage, CarriesRouteDataOfAnySize) {
    for (const std::size_t length : {0ul, 1ul, 90ul, 150ul, 4096ul, 1ul << 20, 64ul << 20}) {
        if (testsupport::kSanitized && length > 1ul << 20) continue;
        const std::string data(length, 'r');
        const VCMessage sent = routed("Media", data);
        EXPECT_EQ(sent.byteSize(), 20 + 25 + 24 + 24 + 20 + length);
        VCMessage received;
        ASSERT_TRUE(parse(received, wireOf(sent)));
        EXPECT_TRUE(received.hasRouteData());
        EXPECT_TRUE(routeData(received) == data) << length;
    }
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
    message.setRouteData(nullptr, 5);
    EXPECT_EQ(routeData(message), std::string(5, '\0'));
    for (unsigned int i = 0; i < 2000; ++i) message.setStreamSize(i);
    EXPECT_EQ(message.getTotalDataSize(), 2 * 25u + 2000 * 24u);
    VCMessage received;
    EXPECT_TRUE(parse(received, serialised(message)));
}

TEST(VCMessage, CopiesShareDataUntilOneOfThemChanges) {
    for (const std::size_t length : {10ul, 10'000ul}) {
        const VCMessage original = routed("Media", std::string(length, 'd'));
        const std::string bytes = serialised(original);
        VCMessage copy = original;
        EXPECT_EQ(copy.wireBytes().data() == original.wireBytes().data(), length == 10'000);
        copy.setClientVersion("more");
        copy.setMessageType(CTL_NOOP);
        EXPECT_EQ(serialised(original), bytes);
        EXPECT_EQ(copy.byteSize(), original.byteSize() + 24);
        EXPECT_EQ(routeData(copy), std::string(length, 'd'));
    }
}

TEST(VCMessage, ReadInPlaceNeedsTheReceivedBytesOnlyUntilItIsCopied) {
    for (const std::size_t length : {10ul, 10'000ul}) {
        auto bytes = std::make_unique<std::string>(wireOf(routed("x", std::string(length, 'd'))));
        VCMessage view;
        ASSERT_TRUE(view.parseInPlace(bytes->data(), static_cast<unsigned int>(bytes->size())));
        EXPECT_EQ(view.wireBytes().data(), static_cast<const void*>(bytes->data()));
        const VCMessage copy = view;
        view.setClientVersion("changed");
        bytes.reset();
        EXPECT_EQ(routeData(copy), std::string(length, 'd'));
        EXPECT_EQ(routeData(view), std::string(length, 'd'));
        EXPECT_EQ(view.getClientVersion(), "changed");
    }
}
