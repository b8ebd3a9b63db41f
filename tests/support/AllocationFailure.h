#pragma once

#include <functional>

namespace testsupport {

// Runs `step` again and again, each time with one allocation of this thread's `new` failing: the
// first one, then the second one, and so on, until it has made none that failed. How often it was
// run.
int failEachAllocation(const std::function<void()>& step);

}  // namespace testsupport
