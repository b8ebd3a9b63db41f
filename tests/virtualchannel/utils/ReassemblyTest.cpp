#include <gmock/gmock.h>
#include <sys/resource.h>

#include <algorithm>
#include <thread>

#include "LogCapture.h"
#include "PacketBytes.h"
#include "Rounds.h"

using namespace packettest;
using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::LogCapture;

namespace {

constexpr int kMaxPacket = 124;  // 100 bytes of payload
constexpr char kOverflow[] = "The total size of the segment exceeds the buffer size!";

struct Reassembly : testing::Test {
    void receivePart(std::uint32_t id, std::uint32_t sequence, std::uint32_t total,
                     std::uint32_t messageLength, const std::string& payload) {
        receive(packetization, wireOf(part(id, sequence, total, messageLength), payload));
    }
    Receiver receiver;
    Packetization packetization{&receiver, kMaxPacket};
};

}  // namespace

TEST_F(Reassembly, DeliversAnUnsplitMessageAtOnceFromWhereItLies) {
    struct Place : PacketizationObserver {
        void OnFullPacketReceived(const void* data, unsigned int) override { seen = data; }
        const void* seen = nullptr;
    } place;
    Packetization own(&place, kMaxPacket);
    const std::string wire = wireOf(part(9, 17, 1, 5), "hello");
    LogCapture log;
    receive(own, wire);
    EXPECT_EQ(place.seen, wire.data() + 24);
    EXPECT_THAT(log.lines(),
                ElementsAre("Retreiving the header from the packet.",
                            "Retrieving the data from the packet.",
                            "Queuing packet to be reassembled.", "receive message id: 9",
                            "Packet is within the maximum size limit no need to reassemble.",
                            "Notifying observer."));
}

TEST_F(Reassembly, DeliversOnceInSequenceOrderWhateverTheOrderOfArrival) {
    const std::string message = pattern(250);
    auto packets = cut(packetization, message);
    std::sort(packets.begin(), packets.end());
    do {
        receiver.messages.clear();
        for (std::size_t i = 0; i < packets.size(); ++i) {
            EXPECT_THAT(receiver.messages, IsEmpty());
            packetization.EnqueuePacket(packets[i].get());
        }
        EXPECT_THAT(receiver.messages, ElementsAre(message));
    } while (std::next_permutation(packets.begin(), packets.end()));
}

TEST_F(Reassembly, JoinsMessagesOfEverySizeInEveryDirection) {
    for (const std::size_t length : {101ul, 20'000ul, 70'000ul, 300'000ul, 4'000'000ul, 150ul}) {
        const std::string message = pattern(length);
        auto packets = cut(packetization, message);
        std::deque<Packet*> order;
        for (const auto& packet : packets) order.push_back(packet.get());
        for (const int direction : {0, 1, 2}) {
            if (direction == 1) std::reverse(order.begin(), order.end());
            if (direction == 2) std::rotate(order.begin(), order.begin() + 1, order.end());
            receiver.messages.clear();
            for (const Packet* packet : order) packetization.EnqueuePacket(packet);
            ASSERT_EQ(receiver.messages.size(), 1u);
            EXPECT_TRUE(receiver.messages[0] == message) << length << ' ' << direction;
        }
    }
}

TEST_F(Reassembly, LogsTheStepsOfASplitMessage) {
    LogCapture log;
    const std::string first = wireOf(part(7, 1, 2, 4), "ab");
    const std::string second = wireOf(part(7, 2, 2, 4), "cd");
    const Packet one = Packet::Borrow(first.data(), 26);
    const Packet two = Packet::Borrow(second.data(), 26);
    log.clear();
    packetization.EnqueuePacket(&two);
    EXPECT_THAT(log.lines(), ElementsAre("Queuing packet to be reassembled.",
                                         "Message has multiple packets, will need to queue.",
                                         "This is the first packet from this message.",
                                         "receive message id: 7Total: 2 Arrived: 1",
                                         "Checking if a packet can be reassembled."));
    log.clear();
    packetization.EnqueuePacket(&one);
    EXPECT_THAT(
        log.lines(),
        ElementsAre("Queuing packet to be reassembled.",
                    "Message has multiple packets, will need to queue.",
                    "An exisiting packet in this message has already been added.",
                    "receive message id: 7Total: 2 Arrived: 2",
                    "Checking if a packet can be reassembled.", "Entire message found.",
                    "Message ID is 7.", "Unassembled packets size: 2", "Notifying observer."));
    EXPECT_THAT(receiver.messages, ElementsAre("abcd"));
}

TEST_F(Reassembly, KeepsInterleavedMessagesApart) {
    receivePart(2, 2, 2, 4, "2b");
    receivePart(1, 1, 2, 4, "1a");
    receivePart(1, 9, 1, 4, "solo");  // unsplit, with the ID of a message that is open
    receivePart(2, 1, 2, 4, "2a");
    receivePart(1, 2, 2, 4, "1b");
    EXPECT_THAT(receiver.messages, ElementsAre("solo", "2a2b", "1a1b"));
}

TEST_F(Reassembly, FindsAMessageAmongThousandsOfOpenOnes) {
    for (std::uint32_t id = 0; id < 3000; ++id) receivePart(id, 2, 2, 8, std::to_string(1000 + id));
    for (std::uint32_t id = 0; id < 3000; id += 7) {
        receiver.messages.clear();
        receivePart(id, 1, 2, 8, "head");
        EXPECT_THAT(receiver.messages, ElementsAre("head" + std::to_string(1000 + id)));
    }
}

TEST_F(Reassembly, TakesTheTotalFromTheFirstPacketThatArrives) {
    receivePart(3, 1, 3, 6, "aa");
    receivePart(3, 2, 2, 6, "bb");
    EXPECT_THAT(receiver.messages, IsEmpty());
    receivePart(3, 3, 1000, 6, "cc");
    EXPECT_THAT(receiver.messages, ElementsAre("aabbcc"));
}

TEST_F(Reassembly, CountsADuplicateAsAnotherPacket) {
    LogCapture log(KLT::kltlogger::Warning);
    receivePart(4, 1, 3, 205, std::string(100, 'x'));
    receivePart(4, 2, 3, 205, std::string(100, 'y'));
    receivePart(4, 2, 3, 205, std::string(100, 'y'));
    EXPECT_THAT(receiver.messages, IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre(kOverflow));
    // The message is forgotten: its last packet now begins another one.
    receivePart(4, 3, 3, 205, std::string(5, 'z'));
    EXPECT_THAT(receiver.messages, IsEmpty());
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(Reassembly, PutsTheLaterOfTwoPacketsWithOneSequenceFirst) {
    receivePart(4, 1, 3, 6, "11");
    receivePart(4, 2, 3, 6, "aa");
    receivePart(4, 2, 3, 6, "bb");
    EXPECT_THAT(receiver.messages, ElementsAre("11bbaa"));
}

TEST_F(Reassembly, FillsWhatNoPacketCarriesWithZeros) {
    const std::string dirty(100, '\xFF');
    for (int i = 0; i < 3; ++i) {  // later rounds use memory again
        receiver.messages.clear();
        receivePart(5, 1, 2, 200, dirty);
        receivePart(5, 2, 2, 200, dirty);
        receivePart(6, 2, 2, 20, "bb");
        receivePart(6, 1, 2, 20, "aa");
        receivePart(5, 1, 2, 200, dirty);
        receivePart(5, 2, 2, 200, dirty);
        receivePart(7, 1, 2, 20, "aa");
        receivePart(7, 2, 2, 20, "bb");
        const std::string zeros(16, '\0');
        EXPECT_THAT(receiver.messages,
                    ElementsAre(dirty + dirty, "aabb" + zeros, dirty + dirty, "aabb" + zeros));
    }
}

TEST_F(Reassembly, GoesByTheSizeThatTheLowestSequenceAnnounces) {
    LogCapture log(KLT::kltlogger::Warning);
    receivePart(8, 2, 2, 900, "bb");
    receivePart(8, 1, 2, 4, "aa");
    EXPECT_THAT(receiver.messages, ElementsAre("aabb"));
    receivePart(8, 2, 2, 4, "bb");
    receivePart(8, 1, 2, 3, "aa");
    EXPECT_THAT(log.lines(), ElementsAre(kOverflow));
}

TEST_F(Reassembly, DropsAMessageWhoseSizeIsNegativeAsASignedNumber) {
    LogCapture log(KLT::kltlogger::Warning);
    receivePart(8, 1, 2, 0x80000000, "aa");
    receivePart(8, 2, 2, 0x80000000, "bb");
    receivePart(9, 1, 2, 0xFFFFFFE7, "");
    receivePart(9, 2, 2, 0xFFFFFFE7, "");
    EXPECT_THAT(receiver.messages, IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre(kOverflow, kOverflow));
}

TEST_F(Reassembly, TakesCountersOutOfRangeAsTheyAre) {
    receivePart(1, 0, 3, 8, "00");
    receivePart(1, 0x80000000, 3, 8, "--");
    receivePart(1, 0x7FFFFFFF, 3, 8, "++");
    EXPECT_THAT(receiver.messages, ElementsAre(std::string("--00++\0\0", 8)));
    // These never become complete.
    receiver.messages.clear();
    for (int i = 0; i < 5; ++i) {
        receivePart(2, 1, 0, 8, "x");
        receivePart(0xFFFFFFFF, 1, 0xFFFFFFFF, 8, "x");
    }
    EXPECT_THAT(receiver.messages, IsEmpty());
}

TEST_F(Reassembly, DeliversEmptyMessages) {
    receivePart(1, 1, 1, 0, "");
    receivePart(2, 1, 2, 0, "");
    receivePart(2, 2, 2, 0, "");
    EXPECT_THAT(receiver.messages, ElementsAre("", ""));
}

TEST_F(Reassembly, LeavesAGapForAPacketWithoutPayload) {
    const std::string first = wireOf(part(7, 1, 2, 4), "ab");
    const std::string broken = wireOf(part(7, 2, 2, 4), "cd");
    const Packet good(first.data(), 26u);
    const Packet bad(broken.data(), 25u);
    LogCapture log(KLT::kltlogger::Warning);
    packetization.EnqueuePacket(&good);
    packetization.EnqueuePacket(&bad);
    packetization.EnqueuePacket(nullptr);
    EXPECT_THAT(receiver.messages, ElementsAre(std::string("ab\0\0", 4)));
    EXPECT_TRUE(log.contains("Unable to copy the data to the buffer."));
}

TEST_F(Reassembly, LeavesWhatIsIncompleteAlone) {
    LogCapture log;
    packetization.ReassemblePackets();
    receivePart(1, 1, 2, 4, "aa");
    packetization.ReassemblePackets();
    EXPECT_THAT(receiver.messages, IsEmpty());
    EXPECT_EQ(log.count("Checking if a packet can be reassembled."), 3);
    EXPECT_FALSE(log.contains("Entire message found."));
}

// Small packets that announce much must not take much memory, nor the beginning of a message the
// memory of the large one before it, again and again.
TEST_F(Reassembly, UsesMemoryForWhatArrivedOnly) {
    if (testsupport::kSanitized) GTEST_SKIP() << "counts the resident memory";
    const auto peak = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss;  // KiB
    };
    const long before = peak();
    const std::string large = pattern(100);
    for (std::uint32_t i = 0; i < 2000; ++i) {
        receivePart(3 * i, 1, 2, 1'000'000, "a");
        receivePart(3 * i, 2, 2, 1'000'000, "b");
        receivePart(3 * i + 1, 1, 1000, 0x7FFFFFFF - 24, large);
        receiver.messages.clear();
    }
    EXPECT_LT(peak() - before, 200 * 1024);
}

TEST_F(Reassembly, DropsAMessageThatThereIsNoMemoryFor) {
    if (testsupport::kSanitized) GTEST_SKIP() << "limits the address space";
    const auto child = [&] {
        const rlimit limit{512u << 20, 512u << 20};
        setrlimit(RLIMIT_AS, &limit);
        receivePart(1, 1, 2, 0x7FFFFFFF - 24, "aa");
        receivePart(1, 2, 2, 0x7FFFFFFF - 24, "bb");
        const bool dropped = receiver.messages.empty();
        receivePart(2, 1, 2, 4, "aa");
        receivePart(2, 2, 2, 4, "bb");
        const bool goesOn = receiver.messages == std::vector<std::string>{"aabb"};
        std::_Exit(dropped && goesOn ? 0 : 1);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

// A host should receive on one thread; one that does not must not corrupt anything.
TEST_F(Reassembly, TakesPacketsFromSeveralThreadsOneAfterTheOther) {
    constexpr std::uint32_t kThreads = 4;
    const auto messages = static_cast<std::uint32_t>(testsupport::rounds(1000));
    std::vector<std::thread> threads;
    for (std::uint32_t thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&, thread] {
            for (std::uint32_t i = 0; i < messages; ++i) {
                const std::uint32_t id = i * kThreads + thread;
                for (const std::uint32_t sequence : {3u, 2u, 1u})
                    receivePart(id, sequence, 3, 300,
                                std::string(100, static_cast<char>('a' + sequence)));
            }
        });
    for (auto& thread : threads) thread.join();
    const std::string whole = std::string(100, 'b') + std::string(100, 'c') + std::string(100, 'd');
    EXPECT_THAT(receiver.messages, testing::Each(whole));
    EXPECT_EQ(receiver.messages.size(), kThreads * messages);
}
