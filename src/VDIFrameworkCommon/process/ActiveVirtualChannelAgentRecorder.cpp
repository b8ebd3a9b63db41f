#include "ActiveVirtualChannelAgentRecorder.h"

#include <unistd.h>

#include <atomic>

#include "AgentMark.h"

namespace VDIFrameworkCommon {

namespace {

std::atomic<bool> g_isClient{false};

}  // namespace

ActiveVirtualChannelAgentRecorder::ActiveVirtualChannelAgentRecorder() = default;
ActiveVirtualChannelAgentRecorder::~ActiveVirtualChannelAgentRecorder() = default;

bool ActiveVirtualChannelAgentRecorder::markCurrentVirtualChannelAgentAsActive() {
    return AgentMark::ofThisProcess().claim();
}

bool ActiveVirtualChannelAgentRecorder::hasOtherActiveVirtualChannelAgent() {
    if (g_isClient.load(std::memory_order_relaxed)) return false;
    AgentMark& mark = AgentMark::ofThisProcess();
    if (mark.isClaimed()) return false;
    // Another thread may have marked this process since.
    const auto holder = mark.holderOf(geteuid());
    return holder && *holder != getpid();
}

void ActiveVirtualChannelAgentRecorder::clearActiveVirtualChannelAgent() {
    AgentMark::ofThisProcess().release();
}

void ActiveVirtualChannelAgentRecorder::declareClientProcess() {
    g_isClient.store(true, std::memory_order_relaxed);
}

}  // namespace VDIFrameworkCommon
