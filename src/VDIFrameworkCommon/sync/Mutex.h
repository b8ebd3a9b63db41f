#pragma once

namespace VDIFrameworkCommon {

// What a ScopedLock can hold: NamedMutex is the one implementation in the product.
class Mutex {
public:
    virtual ~Mutex() = default;

    // True once the caller holds the mutex; false when it could not be locked within the
    // implementation's time limit.
    virtual bool lock() = 0;
    // True when the caller held the mutex and has released it.
    virtual bool unlock() = 0;
};

}  // namespace VDIFrameworkCommon
