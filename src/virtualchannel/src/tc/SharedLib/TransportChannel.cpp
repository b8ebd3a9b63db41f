#include "TransportChannel.h"

#include <algorithm>
#include <chrono>
#include <span>
#include <utility>
#include <vector>

#include "Acknowledgement.h"
#include "Contained.h"
#include "DataWorkers.h"
#include "HostCallbacks.h"
#include "KRANRunner.h"
#include "VirtualChannelAgent.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::contained;
using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::MemoryBlock;
using VDIFrameworkCommon::SplitBytes;
using namespace std::chrono_literals;

namespace {
constexpr auto kWorkerEndLimit = 2s;
constexpr auto kObserverEndLimit = 5s;
constexpr bool kVerbose = true;
// Packets that may wait for the host. Stream data keeps far below it. The far side can cause
// replies faster than a host takes them.
constexpr std::size_t kMostWaiting = 4096;
}  // namespace

// An outgoing message, cut into work items that pass its packets to the host.
class TransportChannel::OutgoingMessage final : public Turnstile::Message {
public:
    OutgoingMessage(const ChannelProfile& profile, const SplitBytes& message)
        : m_profile(profile), m_cutter(message, profile.maxMsgSize) {
        CHANNEL_LOG(Trace, "Iterating ", m_cutter.total(), " packet(s).");
    }
    std::size_t remaining() const override { return m_cutter.remaining(); }
    void cut(std::size_t count, std::vector<WorkItem>& stage) override {
        count = std::min(count, remaining());
        stage.reserve(stage.size() + count);
        for (; count > 0; --count) {
            CHANNEL_LOG(Trace, "Getting payload data from the packet.");
            stage.push_back(DataWorker::carrying(m_cutter.next(), kVerbose));
        }
    }

private:
    const ChannelProfile& m_profile;
    MessageFragmenter m_cutter;
};

TransportChannel::TransportChannel(const ChannelProfile& profile, WorkerThread::Pause pause)
    : m_profile(profile),
      m_observer(profile.observerCalls),
      m_packetizer(this, profile.maxMsgSize),
      m_turnstile(profile.flow) {
    CHANNEL_LOG(Trace, m_profile.name, "()");
    auto worker = std::make_shared<WorkerThread>(std::move(pause), &m_turnstile);
    worker->setPacketsToSendPerBreak(profile.packetsToSendPerBreak);
    worker->setBreakTime(profile.breakTime);
    worker->Start();
    LocalLock lock(m_workerMutex);
    m_worker = std::move(worker);
}

TransportChannel::~TransportChannel() = default;

void TransportChannel::release() {
    ResetChannel();
    Acknowledgement::Shutdown();
    endTraffic();
    LocalLock lock(m_lifeMutex);
    stopAndDeleteAgent();
}

std::shared_ptr<WorkerThread> TransportChannel::worker() {
    LocalLock lock(m_workerMutex);
    return m_worker;
}

// ---- Life

// OnChannelInitialize() and Shutdown() wait for threads that may wait for the callback to return.
bool TransportChannel::insideCallback(const char* operation) const {
    if (!HostCallbacks::isInsideQueryCallback() && !m_observer.insideOnThisThread()) return false;
    CHANNEL_LOG(Warning, operation, " from inside a callback is ignored.");
    return true;
}

int TransportChannel::OnChannelInitialize() {
    if (insideCallback("OnChannelInitialize()")) return 0;
    LocalLock lock(m_lifeMutex);
    if (!m_agent) m_agent = std::make_unique<VirtualChannelAgent::Agent>(this, "");
    return 0;
}

void TransportChannel::Shutdown() {
    if (insideCallback("Shutdown()")) return;
    LocalLock lock(m_lifeMutex);
    shutdownSteps();
}

bool TransportChannel::notifyShutdown() {
    return m_observer.notify([](Observer& observer) { observer.OnVirtualChannelShutdown(); });
}

void TransportChannel::stopAndDeleteAgent() {
    if (auto* const agent = m_agent.get()) contained("Stopping the agent", [=] { agent->stop(); });
    deleteAgent();
}

void TransportChannel::deleteAgent() {
    if (!m_agent) return;
    if (m_observer.clearAndWait(kObserverEndLimit)) {
        m_agent.reset();
        m_packetizer.freeIncompleteMessages();
    } else {
        CHANNEL_LOG(Error, "The agent does not come back from a call, and is left behind.");
        static_cast<void>(m_agent.release());
    }
}

void TransportChannel::endTraffic() {
    m_turnstile.close();
    m_packetizer.freeIncompleteMessages();
    std::shared_ptr<WorkerThread> worker;
    {
        LocalLock lock(m_workerMutex);
        worker.swap(m_worker);
    }
    if (!worker || worker->StopWithin(kWorkerEndLimit)) return;
    CHANNEL_LOG(Warning, "A call of the append callback is under way, and ends by itself.");
    worker->ResetQueue();
    LocalLock lock(m_workerMutex);
    m_abandonedWorker = std::move(worker);
}

// ---- Sending

void TransportChannel::traceSending(unsigned int /*length*/, bool /*lowPriority*/) {
    CHANNEL_LOG(Trace, m_profile.name, "::SendData()");
}

int TransportChannel::SendData(const void* data, unsigned int length, bool lowPriority) {
    traceSending(length, lowPriority);
    if (!isOpen()) {
        CHANNEL_LOG(Trace, "Channel is not active, will not receive data.");
        return 0;
    }
    const auto worker = this->worker();
    if (!worker) return 0;
    if (worker->backlog(lowPriority) >= kMostWaiting) {
        NORVO_LOG_SUMMED_UP(Warning, "The host takes packets too slowly, a message is dropped.");
        return 0;
    }
    CHANNEL_LOG(Trace, "Creating packet queue.");
    contained("Sending a message", [&] {
        std::vector<WorkItem> packets;
        OutgoingMessage message(m_profile, {{static_cast<const std::byte*>(data), length}, {}});
        message.cut(message.remaining(), packets);
        worker->AddWork(packets, lowPriority);
    });
    return 0;
}

StreamSend TransportChannel::SendStreamData(const SplitBytes& message, bool lowPriority,
                                            const std::function<bool()>& goesOn) {
    return sendThrough(message, lowPriority, [&](Turnstile::Message& outgoing, auto& worker) {
        return m_turnstile.pass(outgoing, lowPriority, worker, goesOn);
    });
}

StreamSend TransportChannel::SendStreamDataAtOnce(const SplitBytes& message, bool lowPriority) {
    return sendThrough(message, lowPriority, [&](Turnstile::Message& outgoing, auto& worker) {
        return m_turnstile.passAtOnce(outgoing, lowPriority, worker);
    });
}

StreamSend TransportChannel::sendThrough(const SplitBytes& message, bool lowPriority,
                                         const PassTurnstile& pass) {
    traceSending(static_cast<unsigned int>(message.size()), lowPriority);
    const auto worker = this->worker();
    if (!worker) return StreamSend::NotSent;
    StreamSend result = StreamSend::Dropped;
    CHANNEL_LOG(Trace, "Creating packet queue.");
    contained("Sending a message of a stream", [&] {
        OutgoingMessage outgoing(m_profile, message);
        result = pass(outgoing, *worker);
    });
    return result;
}

std::shared_ptr<VDIFrameworkCommon::StandIn> TransportChannel::StreamStandIn() {
    const auto worker = this->worker();
    return worker && m_turnstile.hadNoLongMessageLately() ? worker->standIn() : nullptr;
}

bool TransportChannel::WaitUntilSent(std::chrono::milliseconds limit) {
    const auto worker = this->worker();
    return !worker || worker->WaitUntilIdle(limit);
}

void TransportChannel::ResetChannel() {
    m_turnstile.reset(worker().get());
    contained("Forgetting an acknowledgement",
              [] { Acknowledgement::GetInstance()->ClearCurrentAck(); });
}

// ---- Receiving

int TransportChannel::ReceiveData(const void* data, unsigned int length) {
    CHANNEL_LOG(Trace, m_profile.name, "::ReceiveData()");
    return takePacket(data, length);
}

int TransportChannel::takePacket(const void* data, unsigned int length) {
    if (!isOpen()) {
        CHANNEL_LOG(Trace, "Channel is not active, will not receive data.");
        return 0;
    }
    if (isInsideDelivery()) {
        CHANNEL_LOG(Warning, "A packet from inside a delivery is dropped.");
        return 0;
    }
    const Packet packet = Packet::Borrow(data, length);
    // Without an observer, beginnings of messages would only pile up.
    if (packet.isPacketValid() && !m_observer.isEmpty()) m_packetizer.EnqueuePacket(&packet);
    return 0;
}

void TransportChannel::OnFullPacketReceived(const void* data, unsigned int size) {
    CHANNEL_LOG(Trace, "Complete message received.");
    const ReentryMark mark(&m_packetizer);
    m_observer.notify(
        [&](Observer& observer) { observer.OnVirtualChannelReceiveData(data, size); });
}

MemoryBlock TransportChannel::TakeReceivedMemory() {
    return isInsideDelivery() ? m_packetizer.TakeMemory() : MemoryBlock();
}

void TransportChannel::ForgetIncompleteMessages() { m_packetizer.ForgetIncompleteMessages(); }

// ---- The observer

void TransportChannel::AddObserver(Observer* observer) {
    CHANNEL_LOG(Trace, m_profile.name, "::AttachCallback()");
    setObserver(observer);
}

void TransportChannel::RemoveObserver(Observer* /*observer*/) {
    CHANNEL_LOG(Trace, m_profile.name, "::RemoveObserver()");
    setObserver(nullptr);
}

void TransportChannel::ChannelActive(int state) {
    if (state != 0 && state != 1) return;
    const bool available = state == 1;
    if (m_available.exchange(available) != available) ForgetIncompleteMessages();
    const bool observed = m_observer.notify([&](Observer& observer) {
        beforeAvailabilityChange(available);
        noteAvailability();
        observer.OnVirtualChannelAvailabilityChange(available);
    });
    if (!observed) noteAvailability();
}

void TransportChannel::noteAvailability() {
    m_turnstile.setAvailable(m_available && isOpen(), worker().get());
}

void TransportChannel::beforeAvailabilityChange(bool available) {
    if (available) CHANNEL_LOG(Trace, "channelactive");
}

void TransportChannel::onAgentStateChange(bool connected) {
    if (connected) {
        startKRAN();
        m_turnstile.open();
    } else {
        m_turnstile.close();
        stopKRAN();
        ResetChannel();
    }
}

// ---- Questions

int TransportChannel::GetType() {
    CHANNEL_LOG(Trace, m_profile.name, "::GetType()");
    return m_profile.type;
}

bool TransportChannel::IsSeamlessMode() {
    return HostCallbacks::GetInstance().isSeamlessMode() == 0;
}

void* TransportChannel::GetClientWindowHandleFromServerWindowHandle(void* serverWindow) {
    if (!serverWindow) {
        CHANNEL_LOG(Trace, "serverWindow is NULL");
        return nullptr;
    }
    void* const clientWindow = HostCallbacks::GetInstance().clientWindow(serverWindow);
    CHANNEL_LOG(Trace, "Server side window handle:", serverWindow,
                " Client side window handle:", clientWindow);
    return clientWindow;
}

}  // namespace NorvoVirtualChannel::tc
