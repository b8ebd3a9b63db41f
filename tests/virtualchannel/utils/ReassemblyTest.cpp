#include <sys/mman.h>
#include <sys/resource.h>

#include <ctime>

#include "PacketBytes.h"
#include "TestSupport.h"

using namespace packettest;
using testsupport::LogCapture;

namespace {

using Texts = std::vector<std::string>;

constexpr int kMaxPacket = 124;  // 100 bytes of payload

struct Reassembly : testing::Test {
    void receivePart(std::uint32_t id, std::uint32_t sequence, std::uint32_t total,
                     std::uint32_t messageLength, const std::string& payload) {
        receive(packetization, wireOf(part(id, sequence, total, messageLength), payload));
    }
    Receiver receiver;
    Packetization packetization{&receiver, kMaxPacket};
};

}  // namespace

// ReassemblyModelTest.cpp covers the joining itself.

TEST_F(Reassembly, DeliversAnUnsplitMessageAtOnceFromWhereItLies) {
    struct Place : PacketizationObserver {
        void OnFullPacketReceived(const void* data, unsigned int) override { seen = data; }
        const void* seen = nullptr;
    } place;
    Packetization own(&place, kMaxPacket);
    const std::string wire = wireOf(part(9, 17, 1, 5), "hello");
    receive(own, wire);
    EXPECT_EQ(place.seen, wire.data() + 24);
}

TEST_F(Reassembly, GivesTheMemoryOfASplitMessageAway) {
    std::vector<VDIFrameworkCommon::MemoryBlock> taken;
    receiver.onMessage = [&](const std::string&) {
        taken.push_back(packetization.TakeMemory());
        EXPECT_FALSE(packetization.TakeMemory());
    };
    receive(packetization, wireOf(part(1, 1, 1, 5), "whole"));
    ASSERT_FALSE(taken.back()) << "it lies in the host's memory";
    for (const char* text : {"abcdef", "ghijkl"}) {
        receivePart(2, 2, 2, 6, text + 3);
        receivePart(2, 1, 2, 6, std::string(text, 3));
        ASSERT_TRUE(taken.back());
    }
    const auto textIn = [&](std::size_t index) {
        return std::string(reinterpret_cast<const char*>(taken.at(index).data()), 6);
    };
    EXPECT_EQ((Texts{textIn(1), textIn(2)}), (Texts{"abcdef", "ghijkl"}));
    EXPECT_FALSE(packetization.TakeMemory()) << "nothing is being delivered";
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

TEST_F(Reassembly, ForgetsWhatIsIncompleteAlsoFromInsideADelivery) {
    receiver.onMessage = [&](const std::string& message) {
        if (message == "anew") packetization.ForgetIncompleteMessages();
    };
    const auto takesUp = [&](const char* between) {
        receivePart(1, 1, 3, 6, "ab");
        receivePart(2, 1, 2, 4, "ab");
        receivePart(1, 2, 3, 6, "cd");
        packetization.ReassemblePackets();  // nothing is complete
        receivePart(3, 1, 1, 4, between);
        receivePart(1, 3, 3, 6, "ef");
        receivePart(2, 2, 2, 4, "cd");
        return std::exchange(receiver.messages, {});
    };
    EXPECT_EQ(takesUp("else"), (Texts{"else", "abcdef", "abcd"}));
    EXPECT_EQ(takesUp("anew"), Texts{"anew"});
    packetization.ForgetIncompleteMessages();
    EXPECT_EQ(takesUp("else"), (Texts{"else", "abcdef", "abcd"}));
}

TEST_F(Reassembly, LeavesAGapForAPacketWithoutPayload) {
    const std::string first = wireOf(part(7, 1, 2, 4), "ab");
    const std::string broken = wireOf(part(7, 2, 2, 4), "cd");
    const Packet good(first.data(), 26u);
    const Packet bad(broken.data(), 25u);
    LogCapture log(KLT::kltlogger::Warning, true);
    for (const Packet* packet : {&good, &bad, &good, &bad}) packetization.EnqueuePacket(packet);
    packetization.EnqueuePacket(nullptr);
    EXPECT_EQ(receiver.messages, Texts(2, std::string("ab\0\0", 4)));
    EXPECT_EQ(log.count("Unable to copy the data to the buffer."), 1);
}

TEST_F(Reassembly, CostsAboutTheSameInAnyOrder) {
    constexpr int kPayload = 1;
    Packetization small(&receiver, 24 + kPayload);
    const std::string message = pattern(static_cast<std::size_t>(testsupport::rounds(200'000)));
    auto packets = cut(small, message);
    const auto costOf = [&](const PacketList& order) {
        const auto begun = std::clock();
        for (const auto& packet : order) small.EnqueuePacket(packet.get());
        EXPECT_TRUE(receiver.messages.back() == message);
        return static_cast<double>(std::clock() - begun);
    };
    const double inOrder = costOf(packets);
    for (std::size_t at = 0; at + 20 < packets.size(); at += 20) {
        std::swap(packets[at], packets[at + 1]);
    }
    EXPECT_LT(costOf(packets), 20 * inOrder);
    std::shuffle(packets.begin(), packets.end(), std::mt19937(1));
    EXPECT_LT(costOf(packets), 50 * inOrder);
    // Each packet announces just what has come with it.
    const auto total = static_cast<std::uint32_t>(message.size());
    const auto begun = std::clock();
    for (std::uint32_t sent = 1; sent <= total; ++sent)
        receivePart(9, total - sent + 1, total, sent, std::string(1, message[total - sent]));
    EXPECT_TRUE(receiver.messages.size() == 4 && receiver.messages.back() == message);
    EXPECT_LT(static_cast<double>(std::clock() - begun), 100 * inOrder);
}

long residentMegabytes() {
    std::istringstream pages(testsupport::contentOf("/proc/self/statm"));
    long total = 0;
    long used = 0;
    pages >> total >> used;
    return used * sysconf(_SC_PAGESIZE) >> 20;
}

// Small packets that announce large messages must not take much memory. Nor must the beginning of a
// message repeatedly keep the memory of the large one before it.
TEST_F(Reassembly, UsesMemoryForWhatArrivedOnly) {
    if (testsupport::kSanitized) GTEST_SKIP() << "counts the resident memory";
    const long before = residentMegabytes();
    const std::string large = pattern(100);
    for (std::uint32_t i = 0; i < 2000; ++i) {
        receivePart(3 * i, 1, 2, 1'000'000, "a");
        receivePart(3 * i, 2, 2, 1'000'000, "b");
        receivePart(3 * i + 1, 1, 1000, i % 2 == 0 ? 0x7FFFFFFF - 24 : 1'000'000, large);
        receiver.messages.clear();
    }
    for (std::uint32_t id = 0; id < 60'000; ++id) receivePart(6000 + id, 1, 2, 1'000'000, "a");
    EXPECT_LT(residentMegabytes() - before, 60);
}

TEST_F(Reassembly, GivesTheMemoryOfALargeMessageBack) {
    if (testsupport::kSanitized) GTEST_SKIP() << "counts the resident memory";
    const long before = residentMegabytes();
    const std::string half(50 << 20, 'h');
    for (const std::uint32_t sequence : {1U, 2U}) receivePart(1, sequence, 2, 100 << 20, half);
    EXPECT_EQ(receiver.messages.size(), 1u);
    receiver.messages.clear();
    for (const std::uint32_t sequence : {1U, 2U}) receivePart(2, sequence, 2, 4, "ab");
    EXPECT_LT(residentMegabytes() - before, 90) << "of which 50 are the test's own";
}

TEST_F(Reassembly, DropsAMessageThatThereIsNoMemoryFor) {
    if (testsupport::kSanitized) GTEST_SKIP() << "limits the address space";
    EXPECT_TRUE(testsupport::holdsInForkedChild([&] {
        const rlimit limit{512u << 20, 512u << 20};
        setrlimit(RLIMIT_AS, &limit);
        // An emulator may not enforce the limit.
        constexpr int kKind = MAP_PRIVATE | MAP_ANONYMOUS;
        if (mmap(nullptr, 1U << 30, PROT_READ, kKind, -1, 0) != MAP_FAILED) return true;
        receivePart(1, 1, 2, 0x7FFFFFFF - 24, "aa");
        receivePart(1, 2, 2, 0x7FFFFFFF - 24, "bb");
        if (!receiver.messages.empty()) return false;
        receivePart(2, 1, 2, 4, "aa");
        receivePart(2, 2, 2, 4, "bb");
        return receiver.messages == Texts{"aabb"};
    }));
}

// A host should receive on one thread, but using several must not corrupt anything. No two messages
// may get the same ID, or parts of both would be joined.
TEST_F(Reassembly, CutsAndJoinsOnSeveralThreadsAtOnce) {
    const auto messageOf = [](int thread) { return pattern(250U + static_cast<unsigned>(thread)); };
    const auto messages = static_cast<std::size_t>(testsupport::rounds(1000));
    testsupport::onThreads(4, [&](int thread) {
        for (std::size_t i = 0; i < messages; ++i)
            for (const auto& packet : cut(packetization, messageOf(thread)))
                packetization.EnqueuePacket(packet.get());
    });
    Texts expected;
    for (int thread = 0; thread < 4; ++thread)
        expected.insert(expected.end(), messages, messageOf(thread));
    std::sort(receiver.messages.begin(), receiver.messages.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(receiver.messages == expected);
}
