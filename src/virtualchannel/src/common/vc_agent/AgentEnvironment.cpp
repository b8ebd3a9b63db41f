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

    std::shared_ptr<shared_memory::SharedMemoryI> makeSegment(SegmentKind kind) override {
        return shared_memory::getSharedMemoryInstance(
            kind == SegmentKind::Broadcast ? shared_memory::ESharedMemoryType::Broadcast
                                           : shared_memory::ESharedMemoryType::Plain);
    }

    bool isSegmentInUseElsewhere(const std::string& name) override {
        return shared_memory::isSegmentInUseElsewhere(name);
    }
    void addPeerSegment(const std::string& name) override { PeerSegmentRecord::add(name); }
    void removePeerSegment(const std::string& name) override { PeerSegmentRecord::remove(name); }
    int removeOrphanedPeerSegments() override { return PeerSegmentRecord::removeLeftovers(); }

    bool hasOtherActiveAgent() override {
        return shared_memory::SharedMemoryRWController::getInstance()
            ->hasOtherActiveVirtualChannelAgent();
    }
    long activeAgentProcess() override {
        return VDIFrameworkCommon::AgentMark::ofThisProcess().holderOf(geteuid()).value_or(0);
    }
    bool markActive() override {
        return shared_memory::SharedMemoryRWController::getInstance()
            ->markCurrentVirtualChannelAgentAsActive();
    }
    void clearActive() override {
        shared_memory::SharedMemoryRWController::getInstance()->clearActiveVirtualChannelAgent();
    }
    void endActivityWatch() override {
        shared_memory::SharedMemoryRWController::getInstance()->shutdown();
    }
};

}  // namespace

std::shared_ptr<AgentEnvironment> AgentEnvironment::system() {
    static const auto machine = std::make_shared<SystemEnvironment>();
    return machine;
}

}  // namespace VirtualChannelAgent
