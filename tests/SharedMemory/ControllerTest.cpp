#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "SegmentSupport.h"
#include "SharedMemoryFactory.h"
#include "SharedMemoryRWController.h"

namespace {

using namespace segmenttest;
using testsupport::ChildProcess;
using testsupport::LogCapture;

// A check every 500 ms, and room for a loaded machine.
constexpr milliseconds kSoon{2500};

class RWControllerAcrossProcesses : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(reader->Open(name, 64));
        ASSERT_TRUE(writer->Create(name, 64));
        reader->subscribeObserver(&collector);
    }
    // What runs next in this process may write at once.
    void TearDown() override {
        const auto controller = SharedMemoryRWController::getInstance();
        EXPECT_TRUE(
            eventually([&] { return controller->canRead() && controller->canWrite(); }, kSoon));
        reader->Close();
    }

    // Whether a write is let through; false only for one that is refused at once.
    bool writes() { return write(*writer, "message"); }

    const std::string name = uniqueName();
    Collector collector;
    const std::shared_ptr<SharedMemoryI> reader = getSharedMemoryInstance(ESharedMemoryType::Plain);
    const std::shared_ptr<SharedMemoryI> writer = getSharedMemoryInstance(ESharedMemoryType::Plain);
};

TEST_F(RWControllerAcrossProcesses, AnotherActiveAgentStopsReadingAndWritingWithinASecond) {
    ASSERT_TRUE(writes());
    LogCapture log;
    ChildProcess other("segmentOtherAgent");
    for (int round = 1; round <= 2; ++round) {
        ASSERT_EQ(other.readLine(), "active");
        EXPECT_TRUE(eventually([&] { return !writes(); }, kSoon));
        EXPECT_TRUE(eventually([&] { return log.contains("Canread flag turns to false: " + name); },
                               kSoon));
        for (int i = 0; i < 3; ++i) EXPECT_FALSE(writes());
        other.writeLine("go away");
        ASSERT_EQ(other.readLine(), "inactive");
        EXPECT_TRUE(eventually([&] { return writes(); }, kSoon));
        EXPECT_TRUE(eventually(
            [&] { return log.count("Canread flag turns to true: " + name) == round; }, kSoon));
        other.writeLine("again");
    }
    EXPECT_EQ(log.count("Canwrite flag turns to false: " + name), 2);
    EXPECT_EQ(log.count("Canwrite flag turns to true: " + name), 2);
    EXPECT_EQ(log.count("Canread flag turns to false: " + name), 2);
    EXPECT_EQ(log.count("Canread flag turns to true: " + name), 2);
}

TEST_F(RWControllerAcrossProcesses, AnAgentThatIsKilledIsGone) {
    ChildProcess other("segmentOtherAgent");
    ASSERT_EQ(other.readLine(), "active");
    EXPECT_TRUE(eventually([&] { return !writes(); }, kSoon));
    other.kill();
    other.wait();
    EXPECT_TRUE(eventually([&] { return writes(); }, kSoon));
}

TEST_F(RWControllerAcrossProcesses, AClientIsNotStoppedByTheAgentItServes) {
    const std::string there = uniqueName();
    const std::string back = uniqueName();
    const auto controller = SharedMemoryRWController::getInstance();
    ASSERT_TRUE(controller->markCurrentVirtualChannelAgentAsActive());
    EXPECT_FALSE(controller->hasOtherActiveVirtualChannelAgent());
    const auto out = getSharedMemoryInstance(ESharedMemoryType::Plain);
    const auto in = getSharedMemoryInstance(ESharedMemoryType::Plain);
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
    const auto controller = SharedMemoryRWController::getInstance();
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
