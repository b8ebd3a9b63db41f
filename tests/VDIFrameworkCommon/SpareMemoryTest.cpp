#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>

#include "CellPool.h"
#include "FrameworkSupport.h"
#include "SharedBytes.h"
#include "SpareBlock.h"

using namespace frameworktest;

namespace {

// Fills memory with this thread's number; returns whether another thread wrote there meanwhile.
bool isSpoilt(void* memory, std::size_t size, int number) {
    auto* const bytes = static_cast<unsigned char*>(memory);
    std::memset(bytes, number, size);
    std::this_thread::yield();
    return std::any_of(bytes, bytes + size, [=](unsigned char byte) { return byte != number; });
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
    std::atomic<int> spoilt{0};
    onThreads(4, [&](int number) {
        for (int round = 0; round < rounds(20000); ++round) {
            void* const cell = pool.allocate();
            spoilt += isSpoilt(cell, 64, number);
            pool.release(passedOn.exchange(cell));
        }
    });
    pool.release(passedOn);
    EXPECT_EQ(spoilt, 0);
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
    std::atomic<int> spoilt{0};
    onThreads(4, [&](int number) {
        for (int i = 0; i < rounds(20'000); ++i) {
            const std::size_t size = 1000u + static_cast<std::size_t>((i * (number + 1)) % 3000);
            std::size_t capacity = 0;
            void* const block = memory.allocate(size, capacity);
            spoilt += isSpoilt(block, size, number);
            memory.release(block, capacity);
        }
    });
    std::size_t capacity = 0;
    ::operator delete(memory.allocate(1000, capacity));
    EXPECT_EQ(spoilt, 0);
}

}  // namespace
