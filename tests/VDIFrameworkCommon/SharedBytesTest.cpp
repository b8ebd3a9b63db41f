#include "SharedBytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "Rounds.h"
#include "SpareBlock.h"

using VDIFrameworkCommon::SharedBytes;
using VDIFrameworkCommon::SpareBlock;

TEST(SharedBytes, LiveAsLongAsAnyHandle) {
    SharedBytes copy;
    {
        const SharedBytes original = SharedBytes::allocate(5000);
        ASSERT_TRUE(original);
        EXPECT_FALSE(original.isShared());
        std::memset(original.data(), 'x', 5000);
        copy = original;
        EXPECT_TRUE(original.isShared());
        EXPECT_EQ(copy.data(), original.data());
    }
    EXPECT_FALSE(copy.isShared());
    EXPECT_EQ(copy.data()[4999], std::byte{'x'});
    const SharedBytes moved = std::move(copy);
    EXPECT_FALSE(copy);  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(moved);
}

TEST(SharedBytes, OfNoBytesAreNotAnEmptyHandle) {
    EXPECT_TRUE(SharedBytes::allocate(0));
    EXPECT_FALSE(SharedBytes());
    EXPECT_FALSE(SharedBytes().isShared());
}

TEST(SharedBytes, AreEmptyWhenTheirSizeIsBeyondReason) {
    EXPECT_FALSE(SharedBytes::allocate(SIZE_MAX));
}

TEST(SpareBlock, GivesTheLastBlockAgainWhenItFits) {
    SpareBlock memory;
    std::size_t capacity = 0;
    void* const first = memory.allocate(100'000, capacity);
    EXPECT_EQ(capacity, 100'000u);
    memory.release(first, capacity);
    void* const again = memory.allocate(60'000, capacity);
    EXPECT_EQ(again, first);
    EXPECT_EQ(capacity, 100'000u);
    void* const second = memory.allocate(60'000, capacity);
    EXPECT_NE(second, first);
    memory.release(again, 100'000);
    memory.release(second, capacity);
    EXPECT_EQ(memory.allocate(100'000, capacity), first);
    memory.release(first, capacity);
    ::operator delete(memory.allocate(100'000, capacity));  // nothing stays behind
}

TEST(SpareBlock, KeepsALargeBlockFromASmallNeed) {
    SpareBlock memory;
    std::size_t capacity = 0;
    void* const large = memory.allocate(SpareBlock::kLargest, capacity);
    memory.release(large, capacity);
    void* const small = memory.allocate(2000, capacity);
    EXPECT_EQ(capacity, 2000u);
    memory.release(small, capacity);
    EXPECT_EQ(memory.allocate(SpareBlock::kLargest, capacity), large);
    ::operator delete(large);
}

TEST(SpareBlock, IsSharedByThreads) {
    SpareBlock memory;
    const int rounds = testsupport::rounds(20'000);
    std::vector<std::thread> threads;
    for (int number = 1; number <= 4; ++number)
        threads.emplace_back([&, number] {
            for (int i = 0; i < rounds; ++i) {
                const std::size_t size = 1000u + static_cast<std::size_t>((i * number) % 3000);
                std::size_t capacity = 0;
                auto* const block = static_cast<unsigned char*>(memory.allocate(size, capacity));
                block[0] = block[size - 1] = static_cast<unsigned char>(number);
                std::this_thread::yield();
                if (block[0] != number || block[size - 1] != number) std::abort();
                memory.release(block, capacity);
            }
        });
    for (auto& thread : threads) thread.join();
    std::size_t capacity = 0;
    ::operator delete(memory.allocate(1000, capacity));
}
