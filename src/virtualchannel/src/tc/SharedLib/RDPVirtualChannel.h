#pragma once

#include "TransportChannel.h"

namespace NorvoVirtualChannel::tc {

// Kind 3. Calls its observer from several threads at once, adds a runner on every initialisation,
// and still carries packets after Shutdown().
class RDPVirtualChannel final : public TransportChannel {
public:
    // Made on the first call, from any thread, and never deleted.
    static RDPVirtualChannel* GetInstance();

    explicit RDPVirtualChannel(WorkerThread::Pause pause = {});
    ~RDPVirtualChannel() override;

    int OnChannelInitialize() override;

private:
    void traceSending(unsigned int length, bool lowPriority) override;
    void beforeAvailabilityChange(bool /*available*/) override {}
    void shutdownSteps() override NORVO_REQUIRES(m_lifeMutex);
};

}  // namespace NorvoVirtualChannel::tc
