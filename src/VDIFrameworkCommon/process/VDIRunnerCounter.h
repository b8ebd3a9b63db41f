#pragma once

#include <map>

#include "LocalMutex.h"

namespace VDIFrameworkCommon {

// Counts the plug-in instances of this process that keep the companion application running.
// Thread-safe.
class VDIRunnerCounter {
public:
    static VDIRunnerCounter& getInstance();

    void addRunner(unsigned int pid);
    // Decrements the count of `pid`, if any.
    void removeRunner(unsigned int pid);
    bool hasRunner() const;
    // How often `pid` is counted now.
    unsigned int count(unsigned int pid) const;

private:
    VDIRunnerCounter() = default;

    mutable LocalMutex m_mutex;
    std::map<unsigned int, unsigned int> m_runners NORVO_GUARDED_BY(m_mutex);
};

}  // namespace VDIFrameworkCommon
