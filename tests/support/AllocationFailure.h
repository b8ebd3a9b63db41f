#pragma once

namespace testsupport {

// While it lives, the allocation number `nth` (from 1) that this thread makes with `new` fails, and
// only that one. One at a time per thread.
class AllocationFailure {
public:
    explicit AllocationFailure(int nth);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    // Whether there was that allocation.
    bool happened() const;
};

// Runs `step` again and again, with the failure of its first allocation, its second one, and so on,
// until it has made none that failed. How often it was run.
template <class Step>
int failEachAllocation(const Step& step) {
    for (int nth = 1;; ++nth) {
        const AllocationFailure failure(nth);
        step();
        if (!failure.happened()) return nth;
    }
}

}  // namespace testsupport
