#include <gtest/gtest.h>

#include <ctime>

#include "Packets.h"

using NorvoVirtualChannel::UIDGenerator;

TEST(UIDGenerator, StartsAtTheTimeAndCounts) {
    const auto before = static_cast<unsigned int>(time(nullptr));
    const unsigned int first = UIDGenerator::GetInstance()->GetNextUID();
    EXPECT_GT(first, before - 600);  // other tests of this process may have taken some
    EXPECT_EQ(UIDGenerator::GetInstance()->GetNextUID(), first + 1);
}

TEST(UIDGenerator, GoesOnAtZeroAfterTheLargestID) {
    UIDGenerator generator(0xFFFFFFFE);
    EXPECT_EQ(generator.GetNextUID(), 0xFFFFFFFFu);
    EXPECT_EQ(generator.GetNextUID(), 0u);
    EXPECT_EQ(generator.GetNextUID(), 1u);
}
