#include "MessageAssembler.h"

#include "SegmentSupport.h"

namespace {

using shared_memory::ChunkHeader;
using shared_memory::MessageAssembler;
using testsupport::kSanitized;
using Outcome = MessageAssembler::Outcome;
constexpr std::uint32_t kCapacity = 8;
constexpr char kSlot[] = "abcdefgh";

TEST(MessageAssemblerTest, JoinsChunksInOrderAndStartsOverAtAFirstChunk) {
    MessageAssembler assembler;
    EXPECT_EQ(assembler.add({2, 1, 16, 8}, kSlot, kCapacity), Outcome::Incomplete);
    EXPECT_EQ(assembler.add({3, 1, 20, 8}, kSlot, kCapacity), Outcome::Incomplete);
    EXPECT_EQ(assembler.add({3, 2, 20, 8}, kSlot, kCapacity), Outcome::Incomplete);
    EXPECT_TRUE(assembler.inProgress());
    EXPECT_EQ(assembler.add({3, 3, 20, 4}, kSlot, kCapacity), Outcome::Complete);
    EXPECT_EQ(assembler.take(), "abcdefghabcdefghabcd");
    EXPECT_FALSE(assembler.inProgress());
}

TEST(MessageAssemblerTest, AChunkThatDoesNotFollowIsAStray) {
    const std::vector<ChunkHeader> strays = {{3, 3, 20, 4},   // one is missing
                                             {3, 0, 20, 8},   // before the first
                                             {4, 2, 20, 8},   // of another message
                                             {3, 4, 20, 8}};  // after the last
    for (const auto& stray : strays) {
        MessageAssembler assembler;
        ASSERT_EQ(assembler.add({3, 1, 20, 8}, kSlot, kCapacity), Outcome::Incomplete);
        EXPECT_EQ(assembler.add(stray, kSlot, kCapacity), Outcome::Stray) << stray.index;
        EXPECT_FALSE(assembler.inProgress());
        EXPECT_EQ(assembler.add({3, 2, 20, 8}, kSlot, kCapacity), Outcome::Stray);
    }
}

TEST(MessageAssemblerTest, RefusesInvalidLengths) {
    const std::vector<ChunkHeader> starts = {
        {0, 1, 0, 0},            // no chunks at all
        {1, 1, 9, 8},            // more than its chunks can hold
        {2, 1, 17, 8},           // the same
        {3, 1, 2, 1},            // more chunks than bytes
        {1, 1, 4, 5},            // a chunk longer than its message
        {2, 1, 16, 9},           // a chunk longer than the slot
        {1, 1, 5, 4},            // a last chunk that leaves the message short
        {1, 1, 0xffffffffU, 8},  // and extremes
        {0xffffffffU, 1, 8, 8}, {2, 1, 16, 0xffffffffU},
    };
    for (const auto& start : starts) {
        MessageAssembler assembler;
        EXPECT_EQ(assembler.add(start, kSlot, kCapacity), Outcome::BadLength)
            << start.count << ' ' << start.total << ' ' << start.length;
        EXPECT_FALSE(assembler.inProgress());
    }
    MessageAssembler assembler;
    ASSERT_EQ(assembler.add({2, 1, 10, 8}, kSlot, kCapacity), Outcome::Incomplete);
    EXPECT_EQ(assembler.add({2, 2, 10, 3}, kSlot, kCapacity), Outcome::BadLength);
}

TEST(MessageAssemblerTest, ARetractedChunkLeavesWhatWasThereBefore) {
    MessageAssembler assembler;
    ASSERT_EQ(assembler.add({2, 1, 16, 8}, kSlot, kCapacity), Outcome::Incomplete);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(assembler.add({2, 2, 16, 8}, kSlot, kCapacity), Outcome::Complete);
        if (i == 0) assembler.retract();
    }
    EXPECT_EQ(assembler.take(), "abcdefghabcdefgh");
    ASSERT_EQ(assembler.add({2, 1, 16, 8}, kSlot, kCapacity), Outcome::Incomplete);
    assembler.retract();
    EXPECT_FALSE(assembler.inProgress());
}

TEST(MessageAssemblerTest, ABrokenMessageReleasesItsMemoryAndATooLongOneIsRefused) {
    constexpr std::uint32_t kChunk = 1 << 20;
    const std::string slot(kChunk, 'x');
    const segmenttest::PeakMemory memory;
    MessageAssembler assemblers[3];
    for (auto& assembler : assemblers) {
        for (std::uint32_t i = 1; i < 60; ++i)
            ASSERT_EQ(assembler.add({60, i, 60 * kChunk, kChunk}, slot.data(), kChunk),
                      Outcome::Incomplete);
        EXPECT_EQ(assembler.add({60, 1000, 60 * kChunk, kChunk}, slot.data(), kChunk),
                  Outcome::Stray);
    }
    EXPECT_LT(memory.growth(), (kSanitized ? 400 : 140) * 1024);
    EXPECT_EQ(
        assemblers[0].add({1024, 1, MessageAssembler::kLongest + 1, kChunk}, slot.data(), kChunk),
        Outcome::BadLength);
}

TEST(MessageAssemblerTest, AnAnnouncedTotalTakesNoMemoryBeforeItArrives) {
    const std::string slot(65536, 'x');
    const segmenttest::PeakMemory memory;
    for (int i = 0; i < 50; ++i) {
        MessageAssembler assembler;
        EXPECT_EQ(assembler.add({65536, 1, MessageAssembler::kLongest, 65536}, slot.data(), 65536),
                  Outcome::Incomplete);
    }
    EXPECT_LT(memory.growth(), (kSanitized ? 256 : 32) * 1024);
}

}  // namespace
