#include "Event.h"

#include <gtest/gtest.h>

#include <thread>

using VDIFrameworkCommon::Event;

TEST(Event, WaitConsumesTheSignal) {
    Event event(true);
    EXPECT_FALSE(event.timedWait(0));
    event.set();
    EXPECT_TRUE(event.timedWait(2000));
    EXPECT_FALSE(event.timedWait(0));
}

TEST(Event, SetEndsAWaitOnAnotherThread) {
    Event event(true);
    std::thread setter([&] { event.set(); });
    EXPECT_TRUE(event.timedWait(10000));
    setter.join();
}
