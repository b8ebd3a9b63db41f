#include "SharedMemoryRWController.h"

#include <unistd.h>

#include <exception>

#include "Contained.h"
#include "LocalMutex.h"
#include "Log.h"
#include "MemoryBlock.h"

namespace shared_memory {

using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::LocalMutex;
using VDIFrameworkCommon::MemoryBlock;

namespace {

constexpr long kCheckEveryMs = 500;

// Ends the checker thread at process exit, before what it uses is torn down.
struct ShutdownAtExit {
    ~ShutdownAtExit() { SharedMemoryRWController::getInstance()->shutdown(); }
};

}  // namespace

std::shared_ptr<SharedMemoryRWController> SharedMemoryRWController::getInstance() {
    static LocalMutex& mutex = *new LocalMutex;
    static std::atomic<std::shared_ptr<SharedMemoryRWController>*> instance{nullptr};
    if (auto* made = instance.load()) return *made;
    LocalLock lock(mutex);
    if (!instance.load()) {
        instance = new std::shared_ptr<SharedMemoryRWController>(new SharedMemoryRWController);
        static const ShutdownAtExit atExit;
    }
    return *instance.load();
}

SharedMemoryRWController::SharedMemoryRWController() { start(); }

SharedMemoryRWController::~SharedMemoryRWController() { shutdown(); }

bool SharedMemoryRWController::start() {
    LocalLock lock(m_threadMutex);
    if (m_running) return true;
    check();  // before a segment of an idle agent can carry anything
    m_running = true;
    try {
        m_checker = std::thread(&SharedMemoryRWController::checkActiveVirtualChannelAgent, this);
    } catch (const std::exception& failure) {
        m_running = false;
        NORVO_LOG(Error, "Cannot start the check for another active agent: ", failure.what());
        return false;
    }
    m_checkerProcess = getpid();
    MemoryBlock::setKeeping(true);
    return true;
}

void SharedMemoryRWController::shutdown() {
    LocalLock lock(m_threadMutex);
    m_running = false;
    m_event.set();
    if (!m_checker.joinable()) return;
    if (m_checkerProcess == getpid()) {
        m_checker.join();
        MemoryBlock::setKeeping(false);
    } else {
        m_checker.detach();
    }
}

// At once with every answer: an agent that connects on it tells local processes right away.
void SharedMemoryRWController::allow(bool isAllowed) {
    m_canRead = isAllowed;
    m_canWrite = isAllowed;
}

void SharedMemoryRWController::check() {
    VDIFrameworkCommon::contained("Looking for another active agent",
                                  [this] { hasOtherActiveVirtualChannelAgent(); });
}

void SharedMemoryRWController::checkActiveVirtualChannelAgent() {
    while (m_running) {
        check();
        MemoryBlock::freeOld();
        m_event.timedWait(kCheckEveryMs);
    }
}

bool SharedMemoryRWController::hasOtherActiveVirtualChannelAgent() {
    const bool hasOther = m_recorder.hasOtherActiveVirtualChannelAgent();
    allow(!hasOther);
    return hasOther;
}

bool SharedMemoryRWController::markCurrentVirtualChannelAgentAsActive() {
    const bool isMarked = m_recorder.markCurrentVirtualChannelAgentAsActive();
    if (isMarked) allow(true);
    return isMarked;
}

void SharedMemoryRWController::clearActiveVirtualChannelAgent() {
    m_recorder.clearActiveVirtualChannelAgent();
}

}  // namespace shared_memory
