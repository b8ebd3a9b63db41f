#pragma once

#include "GatedChannel.h"

namespace NorvoVirtualChannel::tc {

// Kind 2. Still takes packets after Shutdown(), and sends them while the host calls it active.
class VMWareVirtualChannel final : public GatedChannel {
public:
    // Made on the first call, from any thread, and never deleted.
    static VMWareVirtualChannel* GetInstance();

    explicit VMWareVirtualChannel(WorkerThread::Pause pause = {});
    ~VMWareVirtualChannel() override;

    int ReceiveData(const void* data, unsigned int length) override;
    void AddObserver(Observer* observer) override;
    void RemoveObserver(Observer* observer) override;

private:
    void shutdownSteps() override NORVO_REQUIRES(m_lifeMutex);
};

}  // namespace NorvoVirtualChannel::tc
