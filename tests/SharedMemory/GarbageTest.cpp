#include "MultipleWritersOneReaderSM.h"
#include "NamedCondition.h"
#include "SegmentSupport.h"
#include "SharedMemoryBroadcast.h"

namespace {

using namespace segmenttest;
using std::chrono::seconds;

constexpr unsigned int kCapacity = 64;

unsigned int hurriedTime() {
    return static_cast<unsigned int>(50 * Clock::now().time_since_epoch() / milliseconds(1));
}

// A segment whose clock runs fifty times as fast, so that its time-outs are short.
template <class Segment>
using Hurried = WithClock<Segment, hurriedTime>;

// Puts each value into each word of the header and then calls `action`. `published` also increments
// the new message ID, so that a chunk seems to be waiting.
template <class Action>
void forEachGarbage(RawSegment& raw, const Action& action) {
    using Limits = std::numeric_limits<std::int64_t>;
    const std::int64_t values[] = {0,          1,  kCapacity, kCapacity + 1, 1LL << 31,
                                   0xffffffff, -1, -7,        Limits::min(), Limits::max()};
    for (std::size_t offset = 0; offset < 48; offset += offset < 32 ? 8 : 4) {
        for (const std::int64_t value : values) {
            for (const bool published : {false, true}) {
                SCOPED_TRACE(std::to_string(value) + " at " + std::to_string(offset) +
                             (published ? ", published" : ""));
                if (offset < 32)
                    raw.put<std::int64_t>(offset, value);
                else
                    raw.put<std::uint32_t>(offset, static_cast<std::uint32_t>(value));
                if (published)
                    raw.put<std::uint64_t>(16, static_cast<std::uint64_t>(raw.word64(16)) + 1);
                ASSERT_NO_FATAL_FAILURE(action());
            }
        }
    }
}

template <class Segment>
class GarbageTest : public ::testing::Test {};
using Segments =
    ::testing::Types<SharedMemoryMacosx, MultipleWritersOneReaderSM, SharedMemoryBroadcast>;
TYPED_TEST_SUITE(GarbageTest, Segments);

TYPED_TEST(GarbageTest, TheNextWellFormedMessageGetsThrough) {
    const std::string name = uniqueName();
    Collector collector;
    Hurried<TypeParam> reader;
    Hurried<TypeParam> writer;
    ASSERT_TRUE(reader.Open(name, kCapacity));
    ASSERT_TRUE(writer.Create(name, kCapacity));
    reader.subscribeObserver(&collector);
    RawSegment raw(name);
    VDIFrameworkCommon::NamedCondition written;
    ASSERT_TRUE(written.create(("ED992248_" + name + "_read_condition").c_str()));
    // A broadcast's ID may have been set to just before the last one seen. Then the next message is
    // recognised as new only with the one after it, or one later by a reader that was not
    // scheduled.
    const auto waits = std::is_same_v<TypeParam, SharedMemoryBroadcast>
                           ? std::vector<milliseconds>{milliseconds(150), seconds(5), seconds(20)}
                           : std::vector<milliseconds>{seconds(20)};
    std::uint32_t number = 0;
    forEachGarbage(raw, [&] {
        written.notify();
        const std::string message = numberedMessage(1, number++, 40);
        bool arrived = false;
        for (auto wait = waits.begin(); wait != waits.end() && !arrived; ++wait) {
            ASSERT_TRUE(eventually([&] { return write(writer, message); }));
            arrived = eventually([&] { return collector.last() == message; }, *wait);
        }
        ASSERT_TRUE(arrived);
    });
}

// Writes random values into the header and the start of the data for a while.
void scribble(const std::string& name) {
    RawSegment raw(name);
    std::mt19937_64 random(1);
    const auto start = Clock::now();
    while (since(start) < milliseconds(kSanitized ? 300 : 1000)) {
        const std::uint64_t bits = random();
        const auto value = static_cast<std::uint32_t>(bits >> 20U);
        raw.put<std::uint32_t>(16 + bits % 64 / 4 * 4, bits & 1U ? value % 70 : value);
        if (bits % 64 == 0) std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

TEST(Garbage, AnythingMayChangeWhileItIsRead) {
    const std::string name = uniqueName();
    const long before = peakMemory();
    {
        Collector collector;
        SharedMemoryMacosx reader;
        SharedMemoryMacosx disturbed;
        ASSERT_TRUE(reader.Open(name, kCapacity));
        reader.subscribeObserver(&collector);
        const auto scribbling = std::async(scribble, name);
        ASSERT_TRUE(disturbed.Create(name, kCapacity));
        while (scribbling.wait_for(milliseconds(0)) != std::future_status::ready)
            write(disturbed, numberedMessage(1, 1, 300));
    }
    EXPECT_LT(peakMemory() - before, 128 * 1024);

    const PlainPair pair(kCapacity);
    EXPECT_TRUE(crosses(*pair.writer, *pair.reader, "well formed"));
}

}  // namespace
