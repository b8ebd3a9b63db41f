#include "VDIRunnerCounter.h"

namespace VDIFrameworkCommon {

// Never destroyed: threads of the library may ask until the process is gone.
VDIRunnerCounter& VDIRunnerCounter::getInstance() {
    static auto* const instance = new VDIRunnerCounter;
    return *instance;
}

void VDIRunnerCounter::addRunner(unsigned int pid) {
    LocalLock lock(m_mutex);
    ++m_runners[pid];
}

void VDIRunnerCounter::removeRunner(unsigned int pid) {
    LocalLock lock(m_mutex);
    const auto runner = m_runners.find(pid);
    if (runner != m_runners.end() && --runner->second == 0) m_runners.erase(runner);
}

bool VDIRunnerCounter::hasRunner() const {
    LocalLock lock(m_mutex);
    return !m_runners.empty();
}

unsigned int VDIRunnerCounter::count(unsigned int pid) const {
    LocalLock lock(m_mutex);
    const auto runner = m_runners.find(pid);
    return runner == m_runners.end() ? 0 : runner->second;
}

}  // namespace VDIFrameworkCommon
