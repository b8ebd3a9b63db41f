#include "Event.h"
#include "TestSupport.h"

TEST(Event, AWaitConsumesTheSignalOfAnAutoResetEvent) {
    for (const bool autoReset : {true, false}) {
        VDIFrameworkCommon::Event event(autoReset);
        EXPECT_FALSE(event.timedWait(0));
        std::thread setter([&] { event.set(); });
        EXPECT_TRUE(event.timedWait(20000));
        setter.join();
        EXPECT_EQ(event.timedWait(0), !autoReset);
    }
}
