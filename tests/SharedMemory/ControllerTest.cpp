#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "SegmentSupport.h"
#include "SharedMemoryRWController.h"

namespace {

using namespace segmenttest;
using namespace testsupport;

// A check every 500 ms, and room for a loaded machine.
constexpr milliseconds kSoon{2500};

class RWControllerAcrossProcesses : public ::testing::Test {
protected:
    RWControllerAcrossProcesses() { pair.reader->subscribeObserver(&collector); }
    // What runs next in this process may write at once.
    ~RWControllerAcrossProcesses() override {
        EXPECT_TRUE(
            eventually([&] { return controller->canRead() && controller->canWrite(); }, kSoon));
        pair.reader->Close();
    }

    // Whether a write is let through; false only for one that is refused at once.
    bool writes() { return write(*pair.writer, "message"); }
    bool comesToWrite(bool allowed) {
        return eventually([&] { return writes() == allowed; }, kSoon);
    }

    const std::shared_ptr<SharedMemoryRWController> controller =
        SharedMemoryRWController::getInstance();
    Collector collector;
    const PlainPair pair{64};
};

TEST_F(RWControllerAcrossProcesses, AnotherActiveAgentStopsReadingAndWritingWithinASecond) {
    ASSERT_TRUE(writes());
    LogCapture log;
    const auto comesToSay = [&](const std::string& flag, int times) {
        return eventually([&] { return log.count(flag + pair.name) == times; }, kSoon);
    };
    ChildProcess other("segmentOtherAgent");
    for (int round = 1; round <= 2; ++round) {
        ASSERT_EQ(other.readLine(), "active");
        EXPECT_TRUE(comesToWrite(false));
        EXPECT_TRUE(comesToSay("Canread flag turns to false: ", round));
        for (int i = 0; i < 3; ++i) EXPECT_FALSE(writes());
        if (round == 1) {
            other.writeLine("go away");
            ASSERT_EQ(other.readLine(), "inactive");
        } else {
            other.kill();
        }
        EXPECT_TRUE(comesToWrite(true));
        EXPECT_TRUE(comesToSay("Canread flag turns to true: ", round));
        if (round == 1) other.writeLine("again");
    }
    EXPECT_EQ(log.count("Canwrite flag turns to false: " + pair.name), 2);
    EXPECT_EQ(log.count("Canwrite flag turns to true: " + pair.name), 2);
    EXPECT_EQ(log.count("Canread flag turns to "), 4);
}

TEST_F(RWControllerAcrossProcesses, AClientIsNotStoppedByTheAgentItServes) {
    const std::string there = uniqueName();
    const std::string back = uniqueName();
    ASSERT_TRUE(controller->markCurrentVirtualChannelAgentAsActive());
    EXPECT_FALSE(controller->hasOtherActiveVirtualChannelAgent());
    const auto out = plain();
    const auto in = plain();
    ASSERT_TRUE(in->Open(back, 64));
    ChildProcess client("segmentClient", {there, back});
    ASSERT_EQ(client.readLine(), "ready");
    ASSERT_TRUE(out->Create(there, 64));
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(write(*out, "through"));
        EXPECT_EQ(read(*in), "through");
    }
    EXPECT_EQ(client.wait(), 0);
    controller->clearActiveVirtualChannelAgent();
}

TEST_F(RWControllerAcrossProcesses, AfterAShutdownTheNextSegmentStartsTheChecksAgain) {
    controller->shutdown();
    controller->shutdown();
    ChildProcess other("segmentOtherAgent");
    ASSERT_EQ(other.readLine(), "active");
    std::this_thread::sleep_for(milliseconds(600));
    EXPECT_TRUE(controller->canRead());
    EXPECT_TRUE(writes());

    const auto next = getSharedMemoryInstance(ESharedMemoryType::Broadcast);
    ASSERT_TRUE(next->Create(uniqueName(), 64));
    EXPECT_TRUE(
        eventually([&] { return !controller->canRead() && !controller->canWrite(); }, kSoon));
    EXPECT_FALSE(write(*next, "x"));
}

}  // namespace
