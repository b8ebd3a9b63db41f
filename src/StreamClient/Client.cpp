#include <algorithm>
#include <cctype>
#include <cerrno>
#include <exception>
#include <new>
#include <system_error>

#include "ActiveVirtualChannelAgentRecorder.h"
#include "ClientImpl.h"
#include "ConnectionImpl.h"
#include "Contained.h"
#include "InfoSegments.h"
#include "Log.h"
#include "MessageBuilder.h"
#include "MessageParser.h"
#include "PosixSharedMemory.h"
#include "ProcessLife.h"
#include "SegmentStatus.h"
#include "SharedMemoryFactory.h"
#include "StreamImpl.h"
#include "VDIClientInfo.h"

namespace NorvoStreamClient {

using VDIFrameworkCommon::kInfoSegmentSize;
using VDIFrameworkCommon::LocalLock;

namespace {

constexpr std::size_t kLongestName = 64;
constexpr unsigned int kLargestCapacity = 64u << 20;  // the most that an agent creates
// How often the request thread checks the agent's process even if nothing is due.
constexpr auto kLongestSleep = std::chrono::milliseconds(500);
// For a request to an agent whose process has ended. Not 0, because the reported process ID need
// not be the agent's own.
constexpr auto kPatienceWithTheDead = std::chrono::milliseconds(300);
constexpr auto kListenPause = std::chrono::seconds(1);
constexpr auto kPauseAfterFailure = std::chrono::milliseconds(100);

bool isPossibleName(const std::string& name) {
    const auto isPossible = [](unsigned char c) {
        return std::isalnum(c) || c == '-' || c == '_' || c == '.';
    };
    return !name.empty() && name.size() <= kLongestName && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), isPossible);
}

std::string textOf(const std::string& operation, const std::vector<std::string>& fields) {
    VDIFrameworkCommon::MessageBuilder text;
    text.append(operation);
    for (const std::string& field : fields) text.append(field);
    return text.msg();
}

// The segments' names and the read/write gate depend on the process, not on the client object.
void declareProcess() {
    VDIFrameworkCommon::ActiveVirtualChannelAgentRecorder::declareClientProcess();
    VDIFrameworkCommon::VDIClientInfo::getInstance().setClientType(
        VDIFrameworkCommon::VDIClientType::Crews);
}

// A segment's memory is reserved at once, so a large one must be a small part of what is left, and
// many streams do not get one.
unsigned int chosenCapacity(std::size_t openStreams) {
    constexpr unsigned int kUsual = 65536;
    constexpr unsigned int kLarge = 1u << 20;
    constexpr unsigned int kLeastParts = 1000;
    constexpr std::size_t kMostLarge = 16;
    const bool hasRoom = VDIFrameworkCommon::sharedMemoryRoom() / kLeastParts >= kLarge;
    return hasRoom && openStreams < kMostLarge ? kLarge : kUsual;
}

// A stream whose calls all fail with `why`.
std::shared_ptr<Stream::Impl> unopened(const std::string& name, Direction direction,
                                       unsigned int capacity, const Status& why) {
    NORVO_LOG(Warning, "cannot open the stream '", name, "' with the capacity ", capacity, ": ",
              why.text());
    return std::make_shared<Stream::Impl>(name, direction, why);
}

}  // namespace

Client::Impl::Impl(Options options)
    : m_options(std::move(options)),
      m_view(std::make_shared<AgentView>()),
      m_requests(VDIFrameworkCommon::infoRequestsName(m_options.clientName)) {
    declareProcess();
    try {
        m_start = listen();
        if (!m_start) NORVO_LOG(Error, "cannot listen to the agent: ", m_start.text());
        startThreads();
    } catch (const std::system_error& failure) {
        giveUp(Status(Reason::SystemError, failure.code().value()));
    } catch (const std::bad_alloc&) {
        giveUp(Reason::NoMemory);
    }
}

// Ends the thread that runs, if any, before anything here can fail.
void Client::Impl::giveUp(const Status& why) {
    {
        LocalLock lock(m_startMutex);
        m_start = why;
    }
    close();
    NORVO_LOG(Error, "cannot start the client: ", why.text());
}

Status Client::Impl::listen() {
    const std::string name = VDIFrameworkCommon::infoNotificationsName(m_options.clientName);
    m_nextListen = Clock::now() + kListenPause;
    m_info = shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Broadcast);
    if (!m_info->Open(name, kInfoSegmentSize)) return statusOf(m_info->openError());
    if (!m_info->subscribeObserver(this)) {
        m_info->Close();
        return {Reason::SystemError, EAGAIN};
    }
    m_listens = true;
    return {};
}

// The system may have had no memory for the segment when the client started.
void Client::Impl::listenAfterAll() {
    if (m_listens || Clock::now() < m_nextListen) return;
    const Status now = listen();
    if (now) NORVO_LOG(Notice, "listening to the agent after all");
    LocalLock lock(m_startMutex);
    m_start = now;
}

void Client::Impl::startThreads() {
    m_requestThread = std::thread([this] { askLoop(); });
    if (m_options.onNotification || m_options.onConnectionChange)
        m_callbackThread = std::thread([this] { tellLoop(); });
}

Status Client::Impl::status() const {
    {
        LocalLock lock(m_startMutex);
        if (!m_start) return m_start;
    }
    return m_closed ? Reason::Closed : Status();
}

Status Client::Impl::close() {
    if (isForkedChild()) return {};
    if (std::this_thread::get_id() == m_tellerId.load()) {
        NORVO_LOG(Error, "a client cannot be closed from its own callback");
        return Reason::InvalidArgument;
    }
    LocalLock closing(m_closeMutex);
    std::vector<std::weak_ptr<Stream::Impl>> streams;
    {
        LocalLock lock(m_mutex);
        if (m_closed) return {};
        m_closed = true;
        streams.swap(m_streams);
    }
    m_view->close();
    m_requests.cancel();
    m_callbackQueue.wake();
    m_notificationQueue.wake();
    for (const auto& stream : streams) {
        if (const auto open = stream.lock()) open->close();
    }
    join();
    return {};
}

void Client::Impl::join() {
    if (m_requestThread.joinable()) m_requestThread.join();
    if (m_info) m_info->unsubscribeAllObservers();
    if (m_listens) m_info->Close();
    if (m_callbackThread.joinable()) m_callbackThread.join();
}

void Client::Impl::askLoop() {
    while (m_view->waitForDue(Clock::now() + kLongestSleep)) {
        if (!VDIFrameworkCommon::contained("Asking the agent", [this] { ask(); }))
            std::this_thread::sleep_for(kPauseAfterFailure);
    }
}

void Client::Impl::ask() {
    listenAfterAll();
    const unsigned int agent = m_view->agentProcessId();
    const bool dead = agent != 0 && !isProcessAlive(agent);
    if (dead) m_view->suspect();
    const auto due = m_view->due(Clock::now());
    if (!due) return;
    const auto patience =
        dead ? std::min<std::chrono::milliseconds>(due->patience, kPatienceWithTheDead)
             : due->patience;
    const bool taken = m_requests.send(due->text, Clock::now() + patience);
    const auto change = m_view->finished(*due, taken, Clock::now());
    if (change) announce(*change);
}

void Client::Impl::add(NewsQueue& queue, News news) {
    queue.push(std::move(news),
               [](const News& each) { return std::holds_alternative<Notification>(each); });
}

void Client::Impl::announce(bool connected) {
    if (m_options.onConnectionChange) add(m_callbackQueue, connected);
}

void Client::Impl::onNewMessageReceived(std::string message,
                                        shared_memory::SharedMemoryI* /*source*/) {
    auto fields = VDIFrameworkCommon::MessageParser(std::move(message)).parseMsg();
    Notification notification{std::move(fields.front()), {}};
    notification.fields.assign(std::make_move_iterator(fields.begin() + 1),
                               std::make_move_iterator(fields.end()));
    const auto heard = m_view->hear(notification, Clock::now());
    if (heard.connectionChange) announce(*heard.connectionChange);
    if (!heard.isNews) return;
    add(m_options.onNotification ? m_callbackQueue : m_notificationQueue, std::move(notification));
}

void Client::Impl::tellLoop() {
    m_tellerId = std::this_thread::get_id();
    while (const auto news = m_callbackQueue.pop([this] { return !m_closed; })) {
        try {
            tell(*news);
        } catch (const std::exception& failure) {
            NORVO_LOG(Error, "a callback has thrown: ", failure.what());
        } catch (...) {
            NORVO_LOG(Error, "a callback has thrown");
        }
    }
    m_tellerId = std::thread::id();
}

void Client::Impl::tell(const News& news) const {
    if (const auto* connected = std::get_if<bool>(&news)) {
        m_options.onConnectionChange(*connected);
    } else {
        m_options.onNotification(std::get<Notification>(news));
    }
}

Status Client::Impl::nextNotification(Notification& notification, Clock::time_point deadline) {
    if (m_options.onNotification) return Reason::InvalidArgument;
    auto news = m_notificationQueue.popUntil(deadline, [this] { return !m_closed; });
    if (!news) return m_closed ? Reason::Closed : Reason::Timeout;
    notification = std::get<Notification>(std::move(*news));
    return {};
}

Status Client::Impl::request(const std::string& operation, const std::vector<std::string>& fields,
                             Clock::time_point deadline, const std::function<bool()>& mayGoOn) {
    const std::string text = textOf(operation, fields);
    if (operation.empty()) return Reason::InvalidArgument;
    if (text.size() > kInfoSegmentSize) return Reason::TooLong;
    if (m_closed) return Reason::Closed;
    if (operation == "RequestVCProcessId") m_view->expectProcessId();
    if (m_requests.send(text, deadline, mayGoOn)) return {};
    const Status agent = m_view->agentStanding();
    return agent ? Reason::Timeout : agent;
}

std::shared_ptr<Stream::Impl> Client::Impl::makeStream(const std::string& name, Direction direction,
                                                       unsigned int capacity, For users) {
    const auto failed = [&](const Status& why) { return unopened(name, direction, capacity, why); };
    const bool isDirection = direction == Direction::Read || direction == Direction::Write;
    if (!isPossibleName(name) || VDIFrameworkCommon::isInfoSegment(name) || !isDirection ||
        capacity > kLargestCapacity) {
        return failed(Reason::InvalidArgument);
    }
    using Claim = StreamSegment::Claim;
    const Claim claim = users == For::OneProgram ? Claim::Exclusive : Claim::Shared;
    LocalLock lock(m_mutex);
    std::erase_if(m_streams, [](const auto& stream) { return stream.expired(); });
    if (capacity == kDefaultCapacity) capacity = chosenCapacity(m_streams.size());
    if (const Status free = m_view->mayAddStream(name); !free) return failed(free);
    auto impl = std::make_shared<Stream::Impl>(name, direction, m_view);
    if (const Status ready = impl->setUp(capacity, claim); !ready) return failed(ready);
    // The agent may be asked from here on, and must find that this process has the segment open.
    if (const Status added = m_view->addStream(name, direction, capacity); !added)
        return failed(added);
    m_streams.push_back(impl);
    return impl;
}

Status Client::Impl::checkConnection(const std::string& name, const ConnectionOptions& options) {
    constexpr std::size_t kLongestConnectionName = kLongestName - 5;  // for ".back"
    const bool possible = isPossibleName(name) && name.size() <= kLongestConnectionName &&
                          options.capacity >= 128 && options.capacity <= kLargestCapacity &&
                          options.window >= (64u << 10) && options.window <= (64u << 20) &&
                          options.peerTimeout >= std::chrono::seconds(5) &&
                          options.outage >= std::chrono::seconds(0);
    return possible ? Status() : Reason::InvalidArgument;
}

OpenedStream Client::Impl::openStream(const std::string& name, Direction direction,
                                      unsigned int capacity, For users) {
    auto impl = makeStream(name, direction, capacity, users);
    const Status status = impl->status();
    return {std::shared_ptr<Stream>(new Stream(std::move(impl))), status};
}

Client::Client(Options options) : m_impl(std::make_shared<Impl>(std::move(options))) {}
Client::~Client() {
    close();
    leaveToParent(m_impl);
}

OpenedStream Client::openStream(const std::string& name, Direction direction,
                                unsigned int capacity) {
    return m_impl->openStream(name, direction, capacity);
}
OpenedConnection Client::connect(const std::string& name, const ConnectionOptions& options) {
    return Connection::Impl::open(m_impl, name, Connection::Impl::Role::Connect, options);
}
OpenedConnection Client::accept(const std::string& name, const ConnectionOptions& options) {
    return Connection::Impl::open(m_impl, name, Connection::Impl::Role::Accept, options);
}
Status Client::status() const { return m_impl->status(); }
bool Client::isConnected() const { return m_impl->view().isConnected(); }
Status Client::waitUntilConnected(std::chrono::milliseconds timeout) {
    return m_impl->view().waitUntilConnected(deadlineAfter(timeout));
}
unsigned int Client::agentProcessId() const { return m_impl->view().agentProcessId(); }
bool Client::isPossibleRequest(const std::string& operation,
                               const std::vector<std::string>& fields) {
    return !operation.empty() && textOf(operation, fields).size() <= kInfoSegmentSize;
}

Status Client::request(const std::string& operation, const std::vector<std::string>& fields,
                       std::chrono::milliseconds timeout) {
    return m_impl->request(operation, fields, deadlineAfter(timeout));
}
Status Client::nextNotification(Notification& notification, std::chrono::milliseconds timeout) {
    return m_impl->nextNotification(notification, deadlineAfter(timeout));
}
Status Client::close() { return m_impl->close(); }

}  // namespace NorvoStreamClient
