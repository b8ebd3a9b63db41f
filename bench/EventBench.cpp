#include "Event.h"

#include <condition_variable>
#include <mutex>

#include "Harness.h"

namespace {

struct PlainEvent {
    std::mutex mutex;
    std::condition_variable condition;
    bool set = false;
};

}  // namespace

BENCH_SUITE(event, "setting and consuming an event, beside a bare mutex and condition") {
    const auto floor = suite.timed("mutex + condition", [] {
        static PlainEvent event;
        {
            std::lock_guard lock(event.mutex);
            event.set = true;
        }
        event.condition.notify_all();
        std::lock_guard lock(event.mutex);
        event.set = false;
    });
    const auto ours = suite.timed("Event set + timedWait", [] {
        static VDIFrameworkCommon::Event event(true);
        event.set();
        bench::doNotOptimize(event.timedWait(0));
    });
    suite.goal("set + wait", ours["time"], floor["time"], bench::atMost(4.0, 2.0));
}
