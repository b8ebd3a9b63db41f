#include <algorithm>
#include <cctype>

#include "ActiveVirtualChannelAgentRecorder.h"
#include "ClientImpl.h"
#include "Log.h"
#include "MessageBuilder.h"
#include "MessageParser.h"
#include "SharedMemoryFactory.h"
#include "StreamImpl.h"
#include "VDIClientInfo.h"

NORVO_LOG_SOURCE("src/StreamClient/Client")

namespace NorvoStreamClient {

using VDIFrameworkCommon::LocalLock;

namespace {

constexpr std::size_t kMostWaiting = 1024;
constexpr std::size_t kLongestName = 64;
constexpr unsigned int kLargestCapacity = 1u << 30;

bool isPossibleName(const std::string& name) {
    const auto isPossible = [](unsigned char c) {
        return std::isalnum(c) || c == '-' || c == '_' || c == '.';
    };
    return !name.empty() && name.size() <= kLongestName && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), isPossible);
}

// The segments and the agent's gate look at the process, not at the client object.
void declareProcess() {
    VDIFrameworkCommon::ActiveVirtualChannelAgentRecorder::declareClientProcess();
    VDIFrameworkCommon::VDIClientInfo::getInstance().setClientType(
        VDIFrameworkCommon::VDIClientType::Crews);
}

}  // namespace

Client::Impl::Impl(Options options)
    : m_options(std::move(options)),
      m_view(std::make_shared<AgentView>()),
      m_requests(m_options.clientName + "_Info_STREAM2VC") {
    declareProcess();
    m_info = getSharedMemoryInstance(ESharedMemoryType::Broadcast);
    if (m_info->Open(m_options.clientName + "_Info_VC2STREAM", kInfoCapacity)) {
        m_info->subscribeObserver(this);
    } else {
        NORVO_LOG(Error, "cannot join the agent's INFO stream of ", m_options.clientName);
    }
    m_asker = std::thread([this] { askLoop(); });
}

void Client::Impl::close() {
    LocalLock closing(m_closeMutex);
    std::vector<std::weak_ptr<Stream::Impl>> streams;
    {
        LocalLock lock(m_mutex);
        if (m_closed) return;
        m_closed = true;
        streams.swap(m_streams);
        m_changed.notify_all();
    }
    m_view->close();
    m_requests.cancel();
    m_asker.join();
    m_info->unsubscribeAllObservers();
    m_info->Close();
    for (const auto& stream : streams) {
        if (const auto open = stream.lock()) open->close();
    }
}

void Client::Impl::askLoop() {
    // Without an agent a request cannot be placed; do not hold up the others for it.
    constexpr auto kLongestSend = std::chrono::milliseconds(500);
    while (m_view->waitForWork()) {
        bool lost = false;
        for (const std::string& text : m_view->takeDue(Clock::now(), lost)) {
            if (!m_requests.send(text, Clock::now() + kLongestSend)) break;
        }
        if (lost) tellConnection(false);
    }
}

void Client::Impl::tellConnection(bool connected) const {
    if (m_options.onConnectionChange) m_options.onConnectionChange(connected);
}

void Client::Impl::onNewMessageReceived(std::string message, SharedMemoryI* /*source*/) {
    auto fields = VDIFrameworkCommon::MessageParser(std::move(message)).parseMsg();
    Notification notification{std::move(fields.front()), {}};
    notification.fields.assign(std::make_move_iterator(fields.begin() + 1),
                               std::make_move_iterator(fields.end()));
    const auto change = m_view->hear(notification, Clock::now());
    if (change) tellConnection(*change);
    if (m_options.onNotification) {
        m_options.onNotification(notification);
    } else {
        queue(std::move(notification));
    }
}

void Client::Impl::queue(Notification notification) {
    LocalLock lock(m_mutex);
    if (m_waiting.size() >= kMostWaiting) m_waiting.pop_front();
    m_waiting.push_back(std::move(notification));
    m_changed.notify_all();
}

bool Client::Impl::nextNotification(Notification& notification, Clock::time_point deadline) {
    LocalLock lock(m_mutex);
    while (m_waiting.empty() && !m_closed && Clock::now() < deadline) {
        m_changed.wait_until(m_mutex, deadline);
    }
    if (m_waiting.empty()) return false;
    notification = std::move(m_waiting.front());
    m_waiting.pop_front();
    return true;
}

bool Client::Impl::request(const std::string& operation, const std::vector<std::string>& fields,
                           Clock::time_point deadline) {
    VDIFrameworkCommon::MessageBuilder text;
    text.append(operation);
    for (const std::string& field : fields) text.append(field);
    return text.msg().size() <= kInfoCapacity && m_requests.send(text.msg(), deadline);
}

std::shared_ptr<Stream> Client::Impl::openStream(const std::string& name, Direction direction,
                                                 unsigned int capacity) {
    if (!isPossibleName(name) || capacity == 0 || capacity > kLargestCapacity) {
        NORVO_LOG(Warning, "no stream can have the name '", name, "' and the capacity ", capacity);
        return nullptr;
    }
    auto segment = std::make_shared<StreamSegment>();
    LocalLock lock(m_mutex);
    if (m_closed || !m_view->addStream(name, direction, capacity)) return nullptr;
    const bool ready = direction == Direction::Read ? segment->Open(name, capacity)
                                                    : segment->Create(name, capacity);
    if (!ready) {
        m_view->removeStream(name);
        return nullptr;
    }
    auto impl = std::make_shared<Stream::Impl>(name, direction, std::move(segment), m_view);
    std::erase_if(m_streams, [](const auto& stream) { return stream.expired(); });
    m_streams.push_back(impl);
    return std::shared_ptr<Stream>(new Stream(std::move(impl)));
}

Client::Client(Options options) : m_impl(std::make_shared<Impl>(std::move(options))) {}
Client::~Client() { close(); }

std::shared_ptr<Stream> Client::openStream(const std::string& name, Direction direction,
                                           unsigned int capacity) {
    return m_impl->openStream(name, direction, capacity);
}
bool Client::isConnected() const { return m_impl->view().isConnected(); }
bool Client::waitUntilConnected(std::chrono::milliseconds timeout) {
    return m_impl->view().waitUntilConnected(deadlineAfter(timeout));
}
unsigned int Client::agentProcessId() const { return m_impl->view().agentProcessId(); }
bool Client::request(const std::string& operation, const std::vector<std::string>& fields,
                     std::chrono::milliseconds timeout) {
    return m_impl->request(operation, fields, deadlineAfter(timeout));
}
bool Client::nextNotification(Notification& notification, std::chrono::milliseconds timeout) {
    return m_impl->nextNotification(notification, deadlineAfter(timeout));
}
void Client::close() { m_impl->close(); }

}  // namespace NorvoStreamClient
