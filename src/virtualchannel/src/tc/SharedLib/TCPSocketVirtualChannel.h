#pragma once

#include "GatedChannel.h"

namespace NorvoVirtualChannel::tc {

// Kind 4. Sends without pauses and at high priority only. Shutdown() closes it until the host calls
// it active again.
class TCPSocketVirtualChannel final : public GatedChannel {
public:
    // Made on the first call, from any thread, and never deleted.
    static TCPSocketVirtualChannel* GetInstance();

    explicit TCPSocketVirtualChannel(WorkerThread::Pause pause = {});
    ~TCPSocketVirtualChannel() override;

    int SendData(const void* data, unsigned int length, bool lowPriority) override;
    StreamSend SendStreamDataAtOnce(const VDIFrameworkCommon::SplitBytes& message,
                                    bool lowPriority) override;
    StreamSend SendStreamData(const VDIFrameworkCommon::SplitBytes& message, bool lowPriority,
                              const std::function<bool()>& goesOn) override;

private:
    void shutdownSteps() override NORVO_REQUIRES(m_lifeMutex);
};

}  // namespace NorvoVirtualChannel::tc
