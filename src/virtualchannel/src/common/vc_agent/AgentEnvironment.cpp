#include "AgentEnvironment.h"

#include <unistd.h>

#include <thread>

#include "AgentMark.h"
#include "PeerSegmentRecord.h"
#include "SegmentUse.h"
#include "SharedMemoryFactory.h"
#include "SharedMemoryRWController.h"
#include "VirtualChannelAgent.h"

namespace VirtualChannelAgent {

namespace {

class SystemEnvironment final : public AgentEnvironment {
public:
    std::uint64_t nowMs() override { return Agent::getCurrentMS(); }

    void pause(std::chrono::milliseconds duration) override {
        std::this_thread::sleep_for(duration);
    }

    bool wait(VDIFrameworkCommon::Event& event, std::chrono::milliseconds duration) override {
        return event.timedWait(static_cast<long>(duration.count()));
    }

    std::shared_ptr<SharedMemoryI> makeSegment(SegmentKind kind) override {
        return getSharedMemoryInstance(kind == SegmentKind::Broadcast ? ESharedMemoryType::Broadcast
                                                                      : ESharedMemoryType::Plain);
    }

    bool isSegmentInUseElsewhere(const std::string& name) override {
        return shared_memory::isSegmentInUseElsewhere(name);
    }
    void addPeerSegment(const std::string& name) override { PeerSegmentRecord::add(name); }
    void removePeerSegment(const std::string& name) override { PeerSegmentRecord::remove(name); }
    int removePeerSegmentsOfTheDead() override { return PeerSegmentRecord::removeLeftovers(); }

    bool hasOtherActiveAgent() override {
        return SharedMemoryRWController::getInstance()->hasOtherActiveVirtualChannelAgent();
    }
    long activeAgentProcess() override {
        return VDIFrameworkCommon::AgentMark::ofThisProcess().holderOf(geteuid()).value_or(0);
    }
    bool markActive() override {
        return SharedMemoryRWController::getInstance()->markCurrentVirtualChannelAgentAsActive();
    }
    void clearActive() override {
        SharedMemoryRWController::getInstance()->clearActiveVirtualChannelAgent();
    }
    void endActivityWatch() override { SharedMemoryRWController::getInstance()->shutdown(); }
};

}  // namespace

std::shared_ptr<AgentEnvironment> AgentEnvironment::system() {
    static const auto machine = std::make_shared<SystemEnvironment>();
    return machine;
}

}  // namespace VirtualChannelAgent
