#pragma once

#include <functional>

namespace testsupport {

// Runs `step` repeatedly, each time after `prepare` and with one `new` on this thread failing: the
// first, then the second and so on, until none has failed. Returns the number of runs.
int failEachAllocation(
    const std::function<void()>& step, const std::function<void()>& prepare = [] {});

}  // namespace testsupport
