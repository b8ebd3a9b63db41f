// A machine for agents under test: its clock moves only when the test advances it, its segments are
// in memory, and the test plays the local processes at their other ends.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AgentEnvironment.h"
#include "Eventually.h"

namespace testsupport {

class FakeMachine;

// A segment as the agent set it up, seen from its other end.
class FakeSegment : public shared_memory::SharedMemoryI,
                    public std::enable_shared_from_this<FakeSegment> {
public:
    enum class Reader { Takes, Refuses, IsStuck };
    using Kind = VirtualChannelAgent::AgentEnvironment::SegmentKind;

    FakeSegment(FakeMachine& machine, Kind kind) : m_machine(machine), m_kind(kind) {}

    // The local process.
    std::atomic<bool> takesAtOnce{false};
    void setReader(Reader reader) {
        std::lock_guard lock(m_mutex);
        m_reader = reader;
        m_changed.notify_all();
    }
    std::vector<std::string> written() const {
        std::lock_guard lock(m_mutex);
        return m_written;
    }
    void forget() {
        std::lock_guard lock(m_mutex);
        m_written.clear();
    }
    // Like the segment's read thread: unsubscribing waits for the call to end.
    void localProcessWrites(const std::string& message) {
        std::lock_guard delivering(m_delivery);
        if (m_observer) m_observer->onNewMessageReceived(message, this);
    }
    // How the agent set it up: "opened plain 1000".
    std::string text() const { return m_text; }
    bool isOpen() const { return m_open; }
    bool isObserved() const {
        std::lock_guard delivering(m_delivery);
        return m_observer != nullptr;
    }
    int failedWrites() const { return m_failedWrites; }

    // The agent.
    bool Create(const std::string& name, unsigned int size) override {
        return setUp("created ", name, size);
    }
    bool Open(const std::string& name, unsigned int size) override {
        return setUp("opened ", name, size);
    }
    bool Close() override;
    shared_memory::OpenError openError() override { return {shared_memory::OpenFailure::NoSpace}; }
    std::string getName() override { return m_name; }
    bool WriteData(const void* data, const unsigned int& length) override;
    bool TryWriteData(const void* data, unsigned int length) override {
        if (!takesAtOnce) return false;
        std::lock_guard lock(m_mutex);
        m_written.emplace_back(static_cast<const char*>(data), length);
        return true;
    }
    std::string ReadData(unsigned int& length, unsigned int) override { return length = 0, ""; }
    bool ReadData(void**, unsigned int&) override { return false; }
    bool subscribeObserver(shared_memory::SharedMemoryObserverI* observer) override;
    void unsubscribeObserver(shared_memory::SharedMemoryObserverI*) override {
        setObserver(nullptr);
    }
    void unsubscribeAllObservers() override { setObserver(nullptr); }

private:
    void setObserver(shared_memory::SharedMemoryObserverI* observer) {
        std::lock_guard delivering(m_delivery);
        m_observer = observer;
    }
    bool setUp(const char* how, const std::string& name, unsigned int size);

    FakeMachine& m_machine;
    const Kind m_kind;
    std::string m_name;
    std::string m_text;
    std::atomic<bool> m_open{false};
    std::atomic<int> m_failedWrites{0};
    bool m_isClosed = false;
    mutable std::mutex m_delivery;
    shared_memory::SharedMemoryObserverI* m_observer = nullptr;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    Reader m_reader = Reader::Takes;
    std::vector<std::string> m_written;
};

class FakeMachine : public VirtualChannelAgent::AgentEnvironment {
public:
    // Set by the test.
    std::atomic<bool> otherAgentIsActive{false};
    std::atomic<bool> segmentsFail{false};
    std::atomic<bool> subscriptionsFail{false};
    std::atomic<unsigned int> largestSegment{~0U};
    std::atomic<std::uint64_t> clock{1'000'000};
    std::atomic<std::chrono::microseconds> pauseTakes{std::chrono::microseconds(200)};
    std::atomic<std::chrono::milliseconds> closeTakes{std::chrono::milliseconds(0)};
    // Called on the agent's threads.
    std::function<void(FakeSegment&)> onSegmentSetUp = [](FakeSegment&) {};
    std::function<void(FakeSegment&, const std::string&)> onWritten = [](auto&, auto&) {};
    std::function<void(const std::string&)> onLookedForUsers = [](auto&) {};
    // Sets what other processes have open; initially everything.
    void setOpenElsewhere(std::set<std::string> names) {
        std::lock_guard lock(m_mutex);
        m_openElsewhere = std::move(names);
    }

    // Set by the agent.
    std::atomic<bool> isMarked{false};
    std::atomic<int> watchesEnded{0};
    std::atomic<int> pauses{0};
    std::atomic<int> pausedMs{0};

    // Whether it can be set up.
    bool add(FakeSegment& segment) {
        onSegmentSetUp(segment);
        if (segmentsFail) return false;
        std::lock_guard lock(m_mutex);
        m_byName[segment.getName()] = segment.shared_from_this();
        return true;
    }
    std::set<std::string> peerSegments() const {
        std::lock_guard lock(m_mutex);
        return m_peerSegments;
    }
    // The last segment set up under that name; null when there is none.
    std::shared_ptr<FakeSegment> segment(const std::string& name) const {
        std::lock_guard lock(m_mutex);
        const auto found = m_byName.find(name);
        return found == m_byName.end() ? nullptr : found->second;
    }
    int openSegments() const {
        std::lock_guard lock(m_mutex);
        return static_cast<int>(
            std::count_if(m_byName.begin(), m_byName.end(),
                          [](const auto& segment) { return segment.second->isOpen(); }));
    }

    int waiting() const { return m_waiting; }
    // Advances the clock by `ms`, which resumes the waiting thread, and returns when that waits
    // again. (Changing `clock` alone simulates a wall clock change.)
    bool pass(std::uint64_t ms) {
        if (!eventually([&] { return m_waiting > 0; })) return false;
        const int before = m_waits;
        clock += ms;
        m_elapsed += ms;
        return eventually([&] { return m_waits > before && m_waiting > 0; });
    }

    std::uint64_t nowMs() override { return clock; }
    void pause(std::chrono::milliseconds duration) override {
        pauses++;
        pausedMs += static_cast<int>(duration.count());
        std::this_thread::sleep_for(pauseTakes.load());
    }
    bool wait(VDIFrameworkCommon::Event& event, std::chrono::milliseconds duration) override {
        const std::uint64_t deadline = m_elapsed + static_cast<std::uint64_t>(duration.count());
        m_waits++;
        m_waiting++;
        bool set = false;
        while (!set && m_elapsed < deadline) set = event.timedWait(1);
        m_waiting--;
        return set;
    }
    std::shared_ptr<shared_memory::SharedMemoryI> makeSegment(SegmentKind kind) override {
        return std::make_shared<FakeSegment>(*this, kind);
    }
    bool isSegmentInUseElsewhere(const std::string& name) override {
        onLookedForUsers(name);
        std::lock_guard lock(m_mutex);
        return !m_openElsewhere || m_openElsewhere->contains(name);
    }
    void addPeerSegment(const std::string& name) override {
        std::lock_guard lock(m_mutex);
        m_peerSegments.insert(name);
    }
    void removePeerSegment(const std::string& name) override {
        std::lock_guard lock(m_mutex);
        m_peerSegments.erase(name);
    }
    bool hasOtherActiveAgent() override { return otherAgentIsActive; }
    long activeAgentProcess() override { return 4711; }
    bool markActive() override {
        isMarked = true;
        return !otherAgentIsActive;
    }
    void clearActive() override { isMarked = false; }
    void endActivityWatch() override { watchesEnded++; }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, std::shared_ptr<FakeSegment>> m_byName;
    std::set<std::string> m_peerSegments;
    std::optional<std::set<std::string>> m_openElsewhere;
    std::atomic<std::uint64_t> m_elapsed{0};
    std::atomic<int> m_waiting{0};
    std::atomic<int> m_waits{0};
};

inline bool FakeSegment::setUp(const char* how, const std::string& name, unsigned int size) {
    m_name = name;
    m_text = how + std::string(m_kind == Kind::Broadcast ? "broadcast " : "plain ") +
             std::to_string(size);
    return m_open = size <= m_machine.largestSegment && m_machine.add(*this);
}

inline bool FakeSegment::subscribeObserver(shared_memory::SharedMemoryObserverI* observer) {
    if (m_machine.subscriptionsFail) return false;
    setObserver(observer);
    return true;
}

inline bool FakeSegment::Close() {
    if (std::exchange(m_isClosed, true)) std::abort();  // twice
    if (m_open) std::this_thread::sleep_for(m_machine.closeTakes.load());
    std::lock_guard lock(m_mutex);
    m_open = false;
    m_changed.notify_all();
    return true;
}

// A stuck reader blocks a writer as long as a real one would: 2000 ms, or until closed.
inline bool FakeSegment::WriteData(const void* data, const unsigned int& length) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, std::chrono::milliseconds(2000),
                       [&] { return !m_open || m_reader != Reader::IsStuck; });
    if (!m_open || m_reader != Reader::Takes) {
        m_failedWrites++;
        return false;
    }
    m_written.emplace_back(static_cast<const char*>(data), length);
    m_machine.onWritten(*this, m_written.back());
    return true;
}

}  // namespace testsupport
