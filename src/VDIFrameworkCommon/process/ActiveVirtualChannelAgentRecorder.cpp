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
    return !mark.isClaimed() && mark.holderOf(geteuid()).has_value();
}

void ActiveVirtualChannelAgentRecorder::clearActiveVirtualChannelAgent() {
    AgentMark::ofThisProcess().release();
}

void ActiveVirtualChannelAgentRecorder::declareClientProcess() {
    g_isClient.store(true, std::memory_order_relaxed);
}

}  // namespace VDIFrameworkCommon
