#include "CellPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "Rounds.h"

using VDIFrameworkCommon::CellPool;

TEST(CellPool, GivesCellsAgainAndKeepsNoMoreThanItsCount) {
    constexpr std::size_t kCount = 4;
    static constinit CellPool<64, kCount> pool;
    for (int lap = 0; lap < 3; ++lap) {
        std::vector<void*> cells;
        for (std::size_t i = 0; i < kCount + 2; ++i) cells.push_back(pool.allocate());
        EXPECT_EQ(std::set<void*>(cells.begin(), cells.end()).size(), kCount + 2);
        for (void* cell : cells) pool.release(cell);
        for (std::size_t i = 0; i < kCount; ++i) EXPECT_EQ(pool.allocate(), cells[i]);
        for (std::size_t i = 0; i < kCount; ++i) pool.release(cells[i]);
    }
}

TEST(CellPool, NeverGivesACellToTwoThreads) {
    constexpr std::size_t kSize = 64;
    static constinit CellPool<kSize, 8> pool;
    std::atomic<void*> passedOn{nullptr};
    std::atomic<int> spoilt{0};
    std::vector<std::thread> threads;
    for (int id = 1; id <= 4; ++id) {
        threads.emplace_back([&, id] {
            for (int round = 0; round < testsupport::rounds(20000); ++round) {
                auto* const cell = static_cast<unsigned char*>(pool.allocate());
                std::memset(cell, id, kSize);
                if (round % 16 == 0) std::this_thread::yield();
                if (std::any_of(cell, cell + kSize,
                                [id](unsigned char byte) { return byte != id; }))
                    ++spoilt;
                pool.release(passedOn.exchange(cell));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    pool.release(passedOn);
    EXPECT_EQ(spoilt, 0);
}
