#include <algorithm>
#include <exception>
#include <new>
#include <random>
#include <system_error>

#include "ConnectionImpl.h"
#include "Log.h"
#include "SegmentUse.h"
#include "StreamImpl.h"

namespace NorvoStreamClient {

using namespace std::chrono_literals;
using VDIFrameworkCommon::LocalLock;

namespace {

constexpr auto kReadWait = 100ms;
constexpr auto kLongestSleep = 500ms;
// For one write, and for all that is said after close().
constexpr auto kLongestWrite = 500ms;
// How long the agent has to report the streams of a pair. Once the agents are connected it requests
// the peer agent's streams, one every 5 ms.
constexpr auto kAnswer = 100ms;
// Of the 65536 bytes allowed: with the agents' fields they fill 44 RDP and TCP packets, and a few
// more bytes would need another packet.
constexpr std::size_t kLargestFrame = 64800;
constexpr const char* kBackSuffix = ".back";

std::string backOf(const std::string& name) { return name + kBackSuffix; }

std::uint64_t newEpoch() {
    std::random_device random;
    std::uint64_t epoch = 0;
    while (epoch == 0) epoch = static_cast<std::uint64_t>(random()) << 32 | random();
    return epoch;
}

}  // namespace

ConnectionMachine::Settings Connection::Impl::settingsFor(const ConnectionOptions& options) {
    ConnectionMachine::Settings settings;
    settings.blockSize =
        std::min<std::size_t>(options.capacity, kLargestFrame) - ConnectionFrame::kHeaderSize;
    settings.capacity = options.window;
    settings.peerTimeout = options.peerTimeout;
    settings.outage = options.outage;
    return settings;
}

Connection::Impl::Impl(std::shared_ptr<Client::Impl> client, std::string name, Role role,
                       const ConnectionOptions& options)
    : m_client(std::move(client)),
      m_name(std::move(name)),
      m_role(role),
      m_options(options),
      m_machine(role, newEpoch(), settingsFor(options), Clock::now()) {
    LocalLock lock(m_closeMutex);
    try {
        m_reader = std::thread([this] { readLoop(); });
        m_writer = std::thread([this] { writeLoop(); });
    } catch (const std::system_error& failure) {
        fail(Status(Reason::SystemError, failure.code().value()));
    } catch (const std::bad_alloc&) {
        fail(Reason::NoMemory);
    }
}

Connection::Impl::Impl(std::shared_ptr<Client::Impl> client, std::string name, Status failure)
    : m_client(std::move(client)),
      m_name(std::move(name)),
      m_role(Role::Connect),
      m_machine(m_role, 1, {}, Clock::now()),
      m_failure(failure) {}

OpenedConnection Connection::Impl::open(const std::shared_ptr<Client::Impl>& client,
                                        const std::string& name, Role role,
                                        const ConnectionOptions& options) {
    Status possible = Client::Impl::checkConnection(name, options);
    if (client->status().reason() == Reason::Closed) possible = Reason::Closed;
    auto impl = possible ? std::make_shared<Impl>(client, name, role, options)
                         : std::make_shared<Impl>(client, name, possible);
    const Status status = impl->status();
    return {std::shared_ptr<Connection>(new Connection(std::move(impl))), status};
}

// --- what the program calls ---

Status Connection::Impl::standing() const {
    if (m_closed) return Reason::Closed;
    if (!m_failure) return m_failure;
    const Status& failure = m_machine.failure();
    return failure.reason() == Reason::NotConnected && !m_path ? m_path : failure;
}

Status Connection::Impl::status() const {
    LocalLock lock(m_mutex);
    return standing();
}

bool Connection::Impl::waitForChange(Clock::time_point deadline) {
    if (Clock::now() >= deadline) return false;
    ++m_programWaits;
    m_news.wait_until(m_mutex, deadline);
    --m_programWaits;
    return true;
}

void Connection::Impl::wakeProgram() {
    if (m_programWaits > 0) m_news.notify_all();
}

void Connection::Impl::wakeWriter() {
    if (m_machine.hasFrame(Clock::now()) || m_machine.nextWakeUp() < m_writerWakes)
        m_work.notify_one();
}

Status Connection::Impl::waitUntilOpen(Clock::time_point deadline) {
    LocalLock lock(m_mutex);
    for (;;) {
        if (const Status now = standing(); !now || m_machine.isOpen()) return now;
        if (!waitForChange(deadline)) return m_path ? Reason::Timeout : m_path;
    }
}

Status Connection::Impl::write(const char* data, std::size_t length, Clock::time_point deadline,
                               std::size_t& accepted) {
    accepted = 0;
    LocalLock lock(m_mutex);
    if (m_finished || (!data && length > 0)) return Reason::InvalidArgument;
    for (;;) {
        if (const Status now = standing(); !now) return now;
        const std::size_t taken = m_machine.write(data + accepted, length - accepted);
        accepted += taken;
        if (taken > 0) wakeWriter();
        if (accepted == length) return {};
        if (!waitForChange(deadline)) return m_path ? Reason::Timeout : m_path;
    }
}

Status Connection::Impl::finish() {
    LocalLock lock(m_mutex);
    const Status now = standing();
    if (now) {
        m_finished = true;
        m_machine.finish();
        wakeWriter();
    }
    return now;
}

Status Connection::Impl::flush(Clock::time_point deadline) {
    LocalLock lock(m_mutex);
    for (;;) {
        if (m_machine.isDrained() && !m_closed) return {};
        if (const Status now = standing(); !now) return now;
        if (!waitForChange(deadline)) return m_path ? Reason::Timeout : m_path;
    }
}

std::uint64_t Connection::Impl::acknowledged() const {
    LocalLock lock(m_mutex);
    return std::min(m_machine.acked(), m_machine.written());
}

Status Connection::Impl::read(char* buffer, std::size_t size, std::size_t& length,
                              Clock::time_point deadline) {
    length = 0;
    if (!buffer || size == 0) return Reason::InvalidArgument;
    LocalLock lock(m_mutex);
    for (;;) {
        if (m_closed) return Reason::Closed;
        length = m_machine.read(buffer, size);
        if (length > 0) break;
        if (m_machine.isAtEnd()) return Reason::Ended;
        if (const Status now = standing(); !now) return now;
        if (!waitForChange(deadline)) return m_path ? Reason::Timeout : m_path;
    }
    wakeWriter();
    return {};
}

void Connection::Impl::close() {
    if (isForkedChild()) return;
    LocalLock closing(m_closeMutex);
    {
        LocalLock lock(m_mutex);
        if (!m_closed && !m_machine.isOver()) m_machine.abort(Clock::now());
        m_closed = true;
        m_closeDeadline = Clock::now() + kLongestWrite;
        m_work.notify_all();
        m_news.notify_all();
    }
    if (m_writer.joinable()) m_writer.join();
    endReading();
    if (m_reader.joinable()) m_reader.join();
    if (m_in) m_in->close();
    if (m_out) m_out->close();
}

// Before the pair is laid m_in is the reader's own.
void Connection::Impl::endReading() {
    LocalLock lock(m_mutex);
    const bool isLaid = m_paired;
    lock.unlock();
    if (isLaid) m_in->close();
}

void Connection::Impl::fail(Status why) {
    LocalLock lock(m_mutex);
    if (m_failure) m_failure = why;
    m_work.notify_all();
    m_news.notify_all();
}

// --- the reader ---

bool Connection::Impl::mayGoOn() {
    LocalLock lock(m_mutex);
    return !m_closed && m_failure;
}

void Connection::Impl::readLoop() {
    try {
        if (const Status laid = openStreamPair(); !laid) return fail(laid);
        std::string frame;
        while (mayGoOn()) {
            const Status got = m_in->read(frame, kReadWait);
            const Status path = got ? Status() : pathStatus();
            if (!got && path.reason() == Reason::InUseOtherDirection) return fail(path);
            if (got.reason() == Reason::Closed) return fail(got);
            hear(got ? std::move(frame) : std::string(), path);
        }
    } catch (const std::exception& failure) {
        NORVO_LOG(Error, "connection ", m_name, " reads no more: ", failure.what());
        fail(Reason::NoMemory);
    }
}

void Connection::Impl::hear(std::string frame, Status path) {
    LocalLock lock(m_mutex);
    const auto now = Clock::now();
    m_path = path;
    m_machine.setPath(static_cast<bool>(path), now);
    if (!frame.empty()) m_machine.hear(std::move(frame), now);
    m_machine.checkTimeouts(now);
    wakeProgram();
    wakeWriter();
}

Status Connection::Impl::pathStatus() {
    const Status in = m_in->waitUntilUp(0ms);
    return in ? m_out->waitUntilUp(0ms) : in;
}

Status Connection::Impl::openStreamPair() {
    std::optional<bool> inbound;
    while (!inbound && mayGoOn()) {
        const Status agents = m_client->view().waitUntilConnected(Clock::now() + kReadWait);
        if (agents.reason() == Reason::Closed) return agents;
        hear({}, agents ? Reason::NotTakenUp : agents);
        if (agents) inbound = queryDirection().value_or(m_role == Role::Accept);
    }
    Status laid = Reason::Closed;
    for (int attempt = 0; attempt < 2 && mayGoOn(); ++attempt) {
        laid = openPair(*inbound);
        if (laid) laid = waitUntilUp();
        if (laid.reason() == Reason::InUse) laid = classifyInUse(*inbound, attempt);
        if (laid.reason() != Reason::InUseOtherDirection) break;
        m_in.reset();
        m_out.reset();
        inbound = !*inbound;
    }
    LocalLock lock(m_mutex);
    m_paired = static_cast<bool>(laid);
    m_work.notify_one();
    return laid;
}

// The pair is another program's, or the agent has it, in the other direction: since just now for a
// peer that connects, too, or, on the second attempt, for this end. The agent does not tell the
// direction of a stream that its peer has not taken up.
Status Connection::Impl::classifyInUse(bool inbound, int attempt) {
    return attempt > 0 || agentHasOtherDirection(inbound) ||
                   queryDirection().value_or(inbound) != inbound
               ? Reason::InUseOtherDirection
               : Reason::InUse;
}

bool Connection::Impl::agentHasOtherDirection(bool inbound) {
    using EndRole = shared_memory::SegmentRegistry::Role;
    const auto agent = static_cast<pid_t>(m_client->view().agentProcessId());
    const auto has = [agent](const std::string& segment, EndRole role) {
        return agent != 0 && shared_memory::processOfEnd(segment, role) == agent;
    };
    return has(inName(inbound), EndRole::Reader) || has(outName(inbound), EndRole::Writer);
}

std::optional<bool> Connection::Impl::queryDirection() {
    const std::vector<std::string> pair = {m_name, backOf(m_name)};
    m_client->view().forgetDirections(pair[0], pair[1]);
    const auto goesOn = [this] { return mayGoOn(); };
    if (!m_client->request("RequestNotifyStream", pair, Clock::now() + 2s, goesOn))
        return std::nullopt;
    const auto found = m_client->view().waitForDirection(pair[0], pair[1], Clock::now() + kAnswer);
    if (!found) return std::nullopt;
    return *found == Direction::Read;
}

std::string Connection::Impl::inName(bool inbound) const {
    return inbound ? m_name : backOf(m_name);
}

std::string Connection::Impl::outName(bool inbound) const { return inName(!inbound); }

Status Connection::Impl::openPair(bool inbound) {
    const auto in = m_client->openStream(inName(inbound), Direction::Read, m_options.capacity,
                                         Client::Impl::For::OneProgram);
    if (!in) return in.status();
    const auto out = m_client->openStream(outName(inbound), Direction::Write, m_options.capacity,
                                          Client::Impl::For::OneProgram);
    if (!out) return out.status();
    m_in = in;
    m_out = out;
    return {};
}

Status Connection::Impl::waitUntilUp() {
    while (mayGoOn()) {
        for (const auto* stream : {&m_in, &m_out}) {
            const Status up = (*stream)->waitUntilUp(kReadWait);
            if (up.reason() == Reason::InUseOtherDirection || up.reason() == Reason::Closed)
                return up;
        }
        const Status path = pathStatus();
        hear({}, path);
        if (path) return path;
    }
    return Reason::Closed;
}

// --- the writer ---

void Connection::Impl::writeLoop() {
    try {
        for (ConnectionMachine::Frame frame; waitForFrame(frame);) {
            if (!send(*frame)) break;
        }
        LocalLock lock(m_mutex);
        if (!m_paired) return;
        lock.unlock();
        m_out->flush(timeToWrite());
    } catch (const std::exception& failure) {
        NORVO_LOG(Error, "connection ", m_name, " writes no more: ", failure.what());
        fail(Reason::NoMemory);
    }
}

bool Connection::Impl::waitForFrame(ConnectionMachine::Frame& frame) {
    LocalLock lock(m_mutex);
    for (;;) {
        const auto now = Clock::now();
        if (m_closed && (!m_paired || now >= m_closeDeadline)) return false;
        frame = m_paired ? m_machine.nextFrame(now) : nullptr;
        if (frame) return true;
        if (m_closed || !m_failure) return false;
        wakeProgram();
        m_writerWakes = std::min<Clock::time_point>(m_machine.nextWakeUp(), now + kLongestSleep);
        m_work.wait_until(m_mutex, m_writerWakes);
    }
}

std::chrono::milliseconds Connection::Impl::timeToWrite() const {
    LocalLock lock(m_mutex);
    if (!m_closed) return kLongestWrite;
    return std::chrono::ceil<std::chrono::milliseconds>(m_closeDeadline - Clock::now());
}

// False when the writer should end.
bool Connection::Impl::send(const std::string& frame) {
    for (;;) {
        const Status sent = m_out->write(frame.data(), frame.size(), timeToWrite());
        if (sent) return true;
        LocalLock lock(m_mutex);
        if (m_closed && Clock::now() >= m_closeDeadline) return false;
        if (sent.reason() == Reason::Closed || !m_failure) return false;
        // A failed machine has nothing to send but a Reset: this frame is dropped.
        if (m_machine.state() == ConnectionMachine::State::Failed) return true;
    }
}

// --- the handle ---

Connection::Connection(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Connection::~Connection() {
    m_impl->close();
    leaveToParent(m_impl);
}

const std::string& Connection::name() const { return m_impl->name(); }
Status Connection::status() const { return m_impl->status(); }
Status Connection::waitUntilOpen(std::chrono::milliseconds timeout) {
    return m_impl->waitUntilOpen(deadlineAfter(timeout));
}
Status Connection::write(const void* data, std::size_t length, std::chrono::milliseconds timeout,
                         std::size_t* accepted) {
    std::size_t taken = 0;
    const Status status =
        m_impl->write(static_cast<const char*>(data), length, deadlineAfter(timeout), taken);
    if (accepted) *accepted = taken;
    return status;
}
Status Connection::finish() { return m_impl->finish(); }
Status Connection::flush(std::chrono::milliseconds timeout) {
    return m_impl->flush(deadlineAfter(timeout));
}
std::uint64_t Connection::acknowledged() const { return m_impl->acknowledged(); }
Status Connection::read(void* buffer, std::size_t size, std::size_t& length,
                        std::chrono::milliseconds timeout) {
    return m_impl->read(static_cast<char*>(buffer), size, length, deadlineAfter(timeout));
}
void Connection::close() { m_impl->close(); }

}  // namespace NorvoStreamClient
