// A hostile peer that sends arbitrary data, whole or in packets. The build target `full_runs` sends
// a million messages.
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <random>

#include "AgentFixture.h"
#include "Rounds.h"
#include "StreamRules.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {

using Random = std::mt19937;

std::size_t below(Random& random, std::size_t bound) { return random() % bound; }

std::string anyBytes(Random& random, std::size_t longest) {
    std::string bytes(below(random, longest + 1), '\0');
    for (auto& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

template <class Choices>
auto anyOf(Random& random, const Choices& choices) {
    return std::data(choices)[below(random, std::size(choices))];
}

std::string anyName(Random& random) {
    const std::string names[] = {"Media",
                                 "Basic",
                                 "LogCollection",
                                 "upgrade",
                                 "Generic",
                                 "/",
                                 "..",
                                 "",
                                 "a/../b",
                                 "-",
                                 "\x01",
                                 "\xFF\xFE",
                                 "s|t\\u",
                                 "%s%n",
                                 infoInputName(),
                                 infoOutputName(),
                                 std::string(300, 'n'),
                                 anyBytes(random, 12),
                                 "s" + std::to_string(below(random, 5000))};
    return anyOf(random, names);
}

// With random fields and values.
VCMessage anyMessage(Random& random) {
    constexpr unsigned int kSizes[] = {
        0, 1, 1000, 10240, kMaxStreamSize, kMaxStreamSize + 1, 0xFFFFFFFF};
    auto message = control(static_cast<MessageTypeEnum>(below(random, 14)));
    const auto present = random();
    if (present & 7) message.setStreamName(anyName(random));
    if (present & 14) message.setStreamType(static_cast<unsigned int>(below(random, 4)));
    if (present & 28) message.setStreamSize(anyOf(random, kSizes));
    if (present & 64) {
        const auto data = anyBytes(random, 600);
        message.setRouteData(data.data(), static_cast<unsigned int>(data.size()));
    }
    if (present & 128) {
        message.setSupportedStreams(anyBytes(random, 100));
        message.setChannelVersion(anyBytes(random, 50));
        message.setInternalVersion(std::to_string(static_cast<int>(random())));
        message.setUnsupportedMessageType(static_cast<unsigned char>(random()));
    }
    return message;
}

// Damages a valid message: flips bits, cuts it, or appends bytes.
void mutate(Random& random, std::string& bytes) {
    if (below(random, 2) == 0) {
        for (int i = 0; i < 3; ++i)
            bytes[below(random, bytes.size())] ^= static_cast<char>(random());
    } else {
        bytes.resize(below(random, bytes.size() + 1));
        bytes += anyBytes(random, 40);
    }
}

// Records as fuzz/ReceivePath.cpp takes them: the event, the number of words, and the bytes.
void appendRecord(Random& random, std::string& input) {
    auto message = anyMessage(random);
    message.setClientVersion(std::string(3 - (message.byteSize() + 3) % 4, 'x'));
    std::string bytes = wireOf(message);
    const auto kind = below(random, 6);
    if (kind == 0) bytes = anyBytes(random, 300);
    if (kind == 1) mutate(random, bytes);
    bytes.resize(std::min<std::size_t>(bytes.size(), 1020) / 4 * 4);
    input += static_cast<char>(below(random, 3));
    input += static_cast<char>(bytes.size() / 4);
    input += bytes;
}

// The peak memory of this process so far.
long peakKilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

int messagesToSend() {
    const char* const whole = std::getenv("NORVO_HOSTILE_MESSAGES");
    return whole ? std::atoi(whole) : rounds(150'000);
}

}  // namespace

// Ends the process if an agent has too many streams or no longer works.
extern "C" int fuzzReceivePath(const std::uint8_t* data, std::size_t size);

TEST(AgentHostile, AnyMessagesLeaveTheAgentAliveAndItsMemoryBounded) {
    KLT::kltlogger::setThreshold(0);
    const long peakBefore = peakKilobytes();
    const int count = messagesToSend();
    constexpr int kPerAgent = 10'000;
    for (int done = 0; done < count; done += kPerAgent) {
        Random random(static_cast<unsigned int>(done));
        std::string input;
        for (int i = 0; i < std::min(kPerAgent, count - done); ++i) appendRecord(random, input);
        fuzzReceivePath(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
    KLT::kltlogger::setThreshold(KLT::kltlogger::Info);
    // Up to 1001 messages of 600 bytes wait in each of at most 192 streams.
    if (!kSanitized) {
        EXPECT_LT(peakKilobytes() - peakBefore, 500 * 1024);
    }
}
