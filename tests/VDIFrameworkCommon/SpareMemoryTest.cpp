#include "CellPool.h"
#include "FrameworkSupport.h"
#include "MemoryBlock.h"
#include "SharedBytes.h"
#include "SpareBlock.h"

using namespace frameworktest;

namespace {

// Four threads fill memory with their numbers. Returns how often one found another's in its own.
// `allocate` may change the size that it is given.
template <class Allocate, class Release>
int timesSpoilt(const Allocate& allocate, const Release& release) {
    std::atomic<int> spoilt{0};
    onThreads(4, [&](int number) {
        for (int round = 0; round < rounds(20000); ++round) {
            auto size = static_cast<std::size_t>(1000 + round * (number + 1) % 3000);
            auto* const bytes = static_cast<unsigned char*>(allocate(size));
            std::memset(bytes, number, size);
            std::this_thread::yield();
            spoilt += std::count(bytes, bytes + size, number) != static_cast<long>(size);
            release(bytes, size);
        }
    });
    return spoilt;
}

TEST(CellPool, GivesItsCellsAgainAndHasMoreFromTheHeap) {
    constexpr std::size_t kCount = 4;
    static constinit CellPool<64, kCount> pool;
    for (int lap = 0; lap < 3; ++lap) {
        std::vector<void*> cells;
        for (std::size_t i = 0; i < kCount + 2; ++i) cells.push_back(pool.allocate());
        EXPECT_EQ(std::set<void*>(cells.begin(), cells.end()).size(), kCount + 2);
        for (void* cell : cells) pool.release(cell);
        cells.resize(kCount);
        for (void* cell : cells) EXPECT_EQ(pool.allocate(), cell);
        for (void* cell : cells) pool.release(cell);
    }
}

TEST(CellPool, NeverGivesACellToTwoThreads) {
    static constinit CellPool<64, 8> pool;
    std::atomic<void*> passedOn{nullptr};
    const auto allocate = [](std::size_t& size) {
        size = 64;
        return pool.allocate();
    };
    EXPECT_EQ(
        timesSpoilt(allocate, [&](void* cell, auto) { pool.release(passedOn.exchange(cell)); }), 0);
    pool.release(passedOn);
}

TEST(SharedBytes, ZeroBytesGiveAHandleAndTooManyDoNot) {
    EXPECT_TRUE(SharedBytes::allocate(0));
    EXPECT_FALSE(SharedBytes::allocate(SIZE_MAX));
}

TEST(SpareBlock, ReusesTheLargestBlockWhenItFits) {
    SpareBlock memory;
    std::size_t capacity = 0;
    void* const first = memory.allocate(SpareBlock::kLargest, capacity);
    memory.release(first, capacity);
    void* const small = memory.allocate(2000, capacity);
    EXPECT_EQ(capacity, 2000u) << "a large block is not for a small need";
    memory.release(small, capacity);
    void* const again = memory.allocate(SpareBlock::kLargest - 1000, capacity);
    EXPECT_EQ(again, first);
    EXPECT_EQ(capacity, SpareBlock::kLargest);
    void* const second = memory.allocate(60'000, capacity);
    EXPECT_NE(second, first);
    memory.release(again, SpareBlock::kLargest);
    memory.release(second, capacity);
    EXPECT_EQ(memory.allocate(SpareBlock::kLargest, capacity), first);
    ::operator delete(first);
}

TEST(SpareBlock, IsSharedByThreads) {
    SpareBlock memory;
    std::size_t capacity = 0;
    EXPECT_EQ(timesSpoilt([&](std::size_t& size) { return memory.allocate(size, size); },
                          [&](void* block, std::size_t size) { memory.release(block, size); }),
              0);
    ::operator delete(memory.allocate(1000, capacity));
}

TEST(MemoryBlock, LendsWhatWasGivenUpForAMomentOnly) {
    constexpr std::size_t kSize = 1 << 20;
    MemoryBlock::setKeeping(false);
    MemoryBlock block = MemoryBlock::allocate(kSize, kSize);
    block = {};
    EXPECT_EQ(MemoryBlock::kept(), 0u);
    MemoryBlock::setKeeping(true);
    block = MemoryBlock::allocate(1, 1);  // too small to be kept
    block = MemoryBlock::allocate(kSize, kSize);
    std::byte* const first = block.data();
    std::fill_n(first, kSize, std::byte{1});
    block = {};
    EXPECT_EQ(MemoryBlock::kept(), kSize);
    block = MemoryBlock::allocate(100, 100 * kSize);
    EXPECT_EQ(block.capacity(), 100u) << "there is none of the size that would be best";
    block = MemoryBlock::zeroed(kSize);
    EXPECT_EQ(std::count(block.data(), block.data() + kSize, std::byte{0}), long{kSize});
    EXPECT_NE(MemoryBlock::allocate(kSize / 4, kSize / 4).data(), first) << "it is far too large";
    MemoryBlock again = MemoryBlock::allocate(100, kSize);
    EXPECT_EQ(again.data(), first);
    again = {};
    for (const std::size_t kept : {kSize + kSize / 4, std::size_t{0}}) {
        MemoryBlock::freeOld();
        EXPECT_EQ(MemoryBlock::kept(), kept);
    }
    std::vector<MemoryBlock> many;
    for (std::size_t i = 0; i < 10; ++i)
        many.push_back(MemoryBlock::allocate(4 * kSize, 4 * kSize));
    many.clear();
    EXPECT_EQ(MemoryBlock::kept(), MemoryBlock::kMostKept);
    MemoryBlock::setKeeping(false);
    EXPECT_EQ(MemoryBlock::kept(), 0u);
    MemoryBlock::setKeeping(true);
}

}  // namespace
