#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "VDIClientInfo.h"
#include "VDIRunnerCounter.h"

using VDIFrameworkCommon::VDIClientInfo;
using VDIFrameworkCommon::VDIRunnerCounter;

TEST(VDIClientInfo, SaysWhoThisSideIsUntilToldOtherwise) {
    VDIClientInfo& info = VDIClientInfo::getInstance();
    EXPECT_EQ(info.getClientName(), "NorvoCrews");
    EXPECT_EQ(info.getClientVersion(), "1.0.679");
    EXPECT_EQ(info.getMyInternalVersion(), 1);
    EXPECT_EQ(info.getPeerClientVersion(), "");
    info.setClientName("Other");
    info.setPeerClientVersion("9.8");
    info.setPeerInternalVersion(7);
    EXPECT_EQ(info.getClientName(), "Other");
    EXPECT_EQ(info.getPeerClientVersion(), "9.8");
    EXPECT_EQ(info.getPeerInternalVersion(), 7);
    info.setClientName("NorvoCrews");
    info.setPeerClientVersion("");
    info.setPeerInternalVersion(0);
}

TEST(VDIRunnerCounter, CountsEachProcessAndNeverBelowZero) {
    VDIRunnerCounter& counter = VDIRunnerCounter::getInstance();
    counter.removeRunner(7);
    EXPECT_FALSE(counter.hasRunner());
    counter.addRunner(7);
    counter.addRunner(7);
    counter.addRunner(8);
    EXPECT_EQ(counter.count(7), 2U);
    counter.removeRunner(7);
    counter.removeRunner(8);
    EXPECT_TRUE(counter.hasRunner());
    counter.removeRunner(7);
    EXPECT_FALSE(counter.hasRunner());
}

TEST(VDIRunnerCounter, CountsFromManyThreads) {
    VDIRunnerCounter& counter = VDIRunnerCounter::getInstance();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                counter.addRunner(9);
                if (i % 2 == 0) counter.removeRunner(9);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter.count(9), 2000U);
    for (int i = 0; i < 2000; ++i) counter.removeRunner(9);
    EXPECT_FALSE(counter.hasRunner());
}
