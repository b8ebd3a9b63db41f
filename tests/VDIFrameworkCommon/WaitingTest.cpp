#include "AdaptiveSpin.h"
#include "Event.h"
#include "FrameworkSupport.h"

using namespace frameworktest;

namespace {

constexpr AdaptiveSpin::Duration kNone{0};

void repeat(int times, AdaptiveSpin& spin, AdaptiveSpin::Duration waited,
            AdaptiveSpin::Duration wakeUp) {
    for (int i = 0; i < times; ++i) spin.notified(waited, wakeUp);
}

TEST(AdaptiveSpin, StartsAfterShortWaitsForAnotherProcessorAndStopsWhenItDoesNotPay) {
    AdaptiveSpin spin;
    EXPECT_EQ(spin.budget(0, 1), kNone);
    repeat(10, spin, 25us, 5us);
    EXPECT_EQ(spin.budget(0, 1), AdaptiveSpin::kLongestSpin);
    EXPECT_EQ(spin.budget(1, 1), kNone);
    EXPECT_EQ(spin.budget(-1, -1), AdaptiveSpin::kLongestSpin);
    for (int i = 0; i < 4; ++i) spin.timedOut();
    EXPECT_EQ(spin.budget(0, 1), kNone);
    for (int i = 0; i < 20; ++i) {
        repeat(3, spin, 10us, 0us);
        spin.notified(10ms, 5us);
    }
    EXPECT_EQ(spin.budget(0, 1), kNone) << "every fourth wait was long";
}

TEST(AdaptiveSpin, WakeUpsOfBothSidesDoNotCountAsWaiting) {
    AdaptiveSpin slowMachine;
    repeat(10, slowMachine, 75us, 30us);
    EXPECT_NE(slowMachine.budget(0, 1), kNone);
    AdaptiveSpin longWaits;
    repeat(10, longWaits, 75us, 5us);
    EXPECT_EQ(longWaits.budget(0, 1), kNone);
    // A wake-up that takes this long means that the processor was busy.
    AdaptiveSpin busyMachine;
    repeat(10, busyMachine, 5ms, 5ms);
    EXPECT_EQ(busyMachine.budget(0, 1), kNone);
}

TEST(Event, AWaitConsumesTheSignalOfAnAutoResetEvent) {
    for (const bool autoReset : {true, false}) {
        Event event(autoReset);
        EXPECT_FALSE(event.timedWait(0));
        std::thread setter([&] { event.set(); });
        EXPECT_TRUE(event.timedWait(20000));
        setter.join();
        EXPECT_EQ(event.timedWait(0), !autoReset);
    }
}

}  // namespace
