#include "SegmentSupport.h"
#include "SharedMemoryRWController.h"

namespace {

using namespace segmenttest;

class RWControllerAcrossProcesses : public ::testing::Test {
protected:
    RWControllerAcrossProcesses() { pair.reader->subscribeObserver(&collector); }
    // Lets later tests in this process write at once.
    ~RWControllerAcrossProcesses() override {
        EXPECT_TRUE(comesTo([&] { return controller->canRead() && controller->canWrite(); }));
        pair.reader->Close();
    }

    // The check runs every 500 ms; the rest is margin for a loaded machine.
    template <class Predicate>
    bool comesTo(const Predicate& predicate) {
        return eventually(predicate, milliseconds(2500));
    }
    // Whether a write succeeds; false only if it is refused at once.
    bool writes() { return write(*pair.writer, "message"); }

    const std::shared_ptr<SharedMemoryRWController> controller =
        SharedMemoryRWController::getInstance();
    Collector collector;
    const PlainPair pair{64};
};

TEST_F(RWControllerAcrossProcesses, AnotherActiveAgentStopsReadingAndWritingWithinASecond) {
    ASSERT_TRUE(writes());
    LogCapture log;
    const auto comesToSay = [&](const std::string& flag, int times) {
        return comesTo([&] { return log.count(flag + pair.name) == times; });
    };
    for (const int round : {1, 2}) {
        ReadyChild other("agent");
        EXPECT_TRUE(comesTo([&] { return !writes(); }));
        EXPECT_TRUE(comesToSay("Canread flag turns to false: ", round));
        for (int i = 0; i < 3; ++i) EXPECT_FALSE(writes());
        round == 1 ? other.closeInput() : other.kill();
        EXPECT_TRUE(comesTo([&] { return writes(); }));
        EXPECT_TRUE(comesToSay("Canread flag turns to true: ", round));
    }
    EXPECT_EQ(log.count("Canwrite flag turns to false: " + pair.name), 2);
    EXPECT_EQ(log.count("Canwrite flag turns to true: " + pair.name), 2);
    EXPECT_EQ(log.count("Canread flag turns to "), 4);
}

TEST_F(RWControllerAcrossProcesses, AfterAShutdownTheNextSegmentStartsTheChecksAgain) {
    controller->shutdown();
    controller->shutdown();
    ReadyChild other("agent");
    std::this_thread::sleep_for(milliseconds(600));
    EXPECT_TRUE(controller->canRead());
    EXPECT_TRUE(writes());

    const auto next = broadcast();
    ASSERT_TRUE(next->Create(uniqueName(), 64));
    EXPECT_TRUE(comesTo([&] { return !controller->canRead() && !controller->canWrite(); }));
    EXPECT_FALSE(write(*next, "x"));
}

}  // namespace
