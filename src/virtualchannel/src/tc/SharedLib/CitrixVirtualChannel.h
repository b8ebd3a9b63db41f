#pragma once

#include <atomic>

#include "LanguageAbstraction.h"
#include "TransportChannel.h"

namespace NorvoVirtualChannel::tc {

// Kind 1. Shutdown() ends it for good, and if an observer is attached, also its worker and agent.
class CitrixVirtualChannel final : public TransportChannel {
public:
    // Made on the first call, from any thread, and never deleted.
    static CitrixVirtualChannel* GetInstance();

    explicit CitrixVirtualChannel(WorkerThread::Pause pause = {});
    ~CitrixVirtualChannel() override;

    int SendData(const void* data, unsigned int length, bool lowPriority) override;
    int ReceiveData(const void* data, unsigned int length) override;

    // The session's window as reported by the host; zeros without a callback.
    ICAWindowInfo GetICAWindowInfo();

private:
    void shutdownSteps() override NORVO_REQUIRES(m_lifeMutex);

    std::atomic<bool> m_shutDown{false};
};

}  // namespace NorvoVirtualChannel::tc
