#include "SegmentUse.h"

#include <chrono>

#include "Log.h"
#include "NamedMutex.h"
#include "NamedObject.h"
#include "SegmentMapping.h"
#include "SegmentRegistry.h"
#include "SharedMemoryLayout.h"

namespace shared_memory {

using VDIFrameworkCommon::NamedMutex;
using VDIFrameworkCommon::NamedObject;

namespace {

constexpr std::chrono::milliseconds kMutexWait{100};

bool isOpen(const std::string& name, bool exceptHere) {
    SegmentRegistry registry;
    return registry.openExisting(SegmentMapping::prefixed(name)) &&
           registry.hasLivingProcess(exceptHere);
}

// Another process that removes the segment while this one waits removes the mutex with it.
bool lockCurrent(NamedMutex& mutex, const std::string& name) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        const bool isLocked =
            mutex.create((kSegmentObjectPrefix + name).c_str()) && mutex.lockFor(kMutexWait);
        if (!isLocked || mutex.isCurrent()) return isLocked;
        mutex.unlock();
    }
    return false;
}

// The mutex goes last: a process that finds it gone finds everything gone, and recreates it all.
void removeAll(const std::string& name) {
    const std::string object = kSegmentObjectPrefix + name;
    using Kind = NamedObject::Kind;
    SegmentMapping::remove(name);
    NamedObject::remove(Kind::Registry, SegmentMapping::prefixed(name).c_str());
    NamedObject::remove(Kind::Condition, (object + kReadConditionSuffix).c_str());
    NamedObject::remove(Kind::Condition, (object + kWriteConditionSuffix).c_str());
    NamedObject::remove(Kind::Mutex, object.c_str());
}

}  // namespace

bool isSegmentInUse(const std::string& name) { return isOpen(name, false); }

bool isSegmentInUseElsewhere(const std::string& name) { return isOpen(name, true); }

pid_t processOfEnd(const std::string& name, SegmentRegistry::Role role) {
    SegmentRegistry registry;
    if (!registry.openExisting(SegmentMapping::prefixed(name))) return 0;
    return registry.livingProcessOf(role);
}

bool removeSegmentIfUnused(const std::string& name) {
    NamedMutex mutex;
    if (!lockCurrent(mutex, name)) return false;
    const bool isUnused = !isSegmentInUse(name);
    if (isUnused) {
        removeAll(name);
        NORVO_LOG(Info, "Removed unused shared memory: ", name);
    }
    mutex.unlock();
    return isUnused;
}

}  // namespace shared_memory
