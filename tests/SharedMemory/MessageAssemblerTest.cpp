#include "MessageAssembler.h"

#include "SegmentSupport.h"

namespace {

using namespace segmenttest;
using Outcome = MessageAssembler::Outcome;
constexpr std::uint32_t kCapacity = 8;
constexpr char kSlot[] = "abcdefgh";

struct Step {
    ChunkHeader chunk;
    Outcome outcome;
};

TEST(MessageAssemblerTest, JoinsChunksInOrderAndStartsOverAtAFirstChunkAndRefusesOthers) {
    constexpr Step kFirst{{3, 1, 20, 8}, Outcome::Incomplete};
    constexpr Step kSecond{{3, 2, 20, 8}, Outcome::Incomplete};
    const std::vector<Step> cases[] = {
        {{{2, 1, 16, 8}, Outcome::Incomplete}, kFirst, kSecond, {{3, 3, 20, 4}, Outcome::Complete}},
        // What does not follow: one is missing, before the first, of another message, after the
        // last.
        {kFirst, {{3, 3, 20, 4}, Outcome::Stray}, {{3, 2, 20, 8}, Outcome::Stray}},
        {kFirst, {{3, 0, 20, 8}, Outcome::Stray}, {{3, 2, 20, 8}, Outcome::Stray}},
        {kFirst, {{4, 2, 20, 8}, Outcome::Stray}, {{3, 2, 20, 8}, Outcome::Stray}},
        {kFirst, {{3, 4, 20, 8}, Outcome::Stray}, {{3, 2, 20, 8}, Outcome::Stray}},
        // Invalid lengths.
        {{{0, 1, 0, 0}, Outcome::BadLength}},   // no chunks at all
        {{{1, 1, 9, 8}, Outcome::BadLength}},   // more than its chunks can hold
        {{{2, 1, 17, 8}, Outcome::BadLength}},  // the same
        {{{3, 1, 2, 1}, Outcome::BadLength}},   // more chunks than bytes
        {{{1, 1, 4, 5}, Outcome::BadLength}},   // a chunk longer than its message
        {{{2, 1, 16, 9}, Outcome::BadLength}},  // a chunk longer than the slot
        {{{1, 1, 5, 4}, Outcome::BadLength}},   // a last chunk that leaves the message short
        {{{2, 1, 10, 8}, Outcome::Incomplete}, {{2, 2, 10, 3}, Outcome::BadLength}},
        {{{1, 1, 0xffffffffU, 8}, Outcome::BadLength}},  // and extremes
        {{{0xffffffffU, 1, 8, 8}, Outcome::BadLength}},
        {{{2, 1, 16, 0xffffffffU}, Outcome::BadLength}},
    };
    for (const auto& steps : cases) {
        MessageAssembler assembler;
        for (const auto& [chunk, outcome] : steps) {
            EXPECT_EQ(assembler.add(chunk, kSlot, kCapacity), outcome)
                << chunk.count << ' ' << chunk.index << ' ' << chunk.total << ' ' << chunk.length;
            EXPECT_EQ(assembler.inProgress(), outcome == Outcome::Incomplete);
        }
        EXPECT_EQ(assembler.take(),
                  steps.back().outcome == Outcome::Complete ? "abcdefghabcdefghabcd" : "");
    }
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
    const long before = peakMemory();
    MessageAssembler assemblers[3];
    for (auto& assembler : assemblers) {
        for (std::uint32_t i = 1; i < 60; ++i)
            ASSERT_EQ(assembler.add({60, i, 60 * kChunk, kChunk}, slot.data(), kChunk),
                      Outcome::Incomplete);
        EXPECT_EQ(assembler.add({60, 1000, 60 * kChunk, kChunk}, slot.data(), kChunk),
                  Outcome::Stray);
    }
    EXPECT_LT(peakMemory() - before, (kSanitized ? 400 : 140) * 1024);
    EXPECT_EQ(
        assemblers[0].add({1024, 1, MessageAssembler::kLongest + 1, kChunk}, slot.data(), kChunk),
        Outcome::BadLength);
}

TEST(MessageAssemblerTest, AnAnnouncedTotalTakesNoMemoryBeforeItArrives) {
    const std::string slot(65536, 'x');
    const long before = peakMemory();
    for (int i = 0; i < 50; ++i) {
        MessageAssembler assembler;
        EXPECT_EQ(assembler.add({65536, 1, MessageAssembler::kLongest, 65536}, slot.data(), 65536),
                  Outcome::Incomplete);
    }
    EXPECT_LT(peakMemory() - before, (kSanitized ? 256 : 32) * 1024);
}

}  // namespace
