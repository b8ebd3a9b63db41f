// A machine for agents under test: its clock stands still until the test moves it, its segments are
// in memory, and the test plays the local processes at their other ends.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
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

// A segment as the agent set it up, seen from its other end.
class FakeSegment : public shared_memory::SharedMemoryI,
                    public std::enable_shared_from_this<FakeSegment> {
public:
    enum class Reader { Takes, Refuses, IsStuck };
    using Kind = VirtualChannelAgent::AgentEnvironment::SegmentKind;

    explicit FakeSegment(Kind kind, std::function<bool(FakeSegment&)> registerSelf)
        : m_kind(kind), m_registerSelf(std::move(registerSelf)) {}

    std::atomic<std::chrono::milliseconds> closeTakes{std::chrono::milliseconds(0)};

    // The local process.
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
    // As the segment's read thread does it: whoever unsubscribes waits for the call to end.
    void localProcessWrites(const std::string& message) {
        std::lock_guard delivering(m_delivery);
        for (auto* observer : m_observers) observer->onNewMessageReceived(message, this);
    }
    // How the agent set it up: "opened plain 1000".
    std::string text() const {
        return std::string(m_created ? "created " : "opened ") +
               (m_kind == Kind::Broadcast ? "broadcast " : "plain ") + std::to_string(m_size);
    }
    bool isOpen() const { return m_open; }
    bool isObserved() const {
        std::lock_guard delivering(m_delivery);
        return !m_observers.empty();
    }
    int failedWrites() const { return m_failedWrites; }

    // The agent.
    bool Create(const std::string& name, unsigned int size) override {
        return setUp(name, size, true);
    }
    bool Open(const std::string& name, unsigned int size) override {
        return setUp(name, size, false);
    }
    bool Close() override {
        if (m_open) std::this_thread::sleep_for(closeTakes.load());
        std::lock_guard lock(m_mutex);
        EXPECT_FALSE(std::exchange(m_isClosed, true)) << "closed twice";
        m_open = false;
        m_changed.notify_all();
        return true;
    }
    shared_memory::OpenError openError() override {
        using shared_memory::OpenFailure;
        return {m_open ? OpenFailure::None : OpenFailure::NoSpace};
    }
    std::string getName() override { return m_name; }
    // A stuck reader holds a writer as long as the real one would: 2000 ms, or until it is closed.
    bool WriteData(const void* data, const unsigned int& length) override {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(2000),
                           [&] { return !m_open || m_reader != Reader::IsStuck; });
        const bool taken = m_open && m_reader == Reader::Takes;
        if (taken) {
            m_written.emplace_back(static_cast<const char*>(data), length);
        } else {
            m_failedWrites++;
        }
        return taken;
    }
    std::string ReadData(unsigned int& length, unsigned int) override { return length = 0, ""; }
    bool ReadData(void**, unsigned int&) override { return false; }
    void subscribeObserver(shared_memory::SharedMemoryObserverI* observer) override {
        std::lock_guard delivering(m_delivery);
        m_observers.insert(observer);
    }
    void unsubscribeObserver(shared_memory::SharedMemoryObserverI* observer) override {
        std::lock_guard delivering(m_delivery);
        m_observers.erase(observer);
    }
    void unsubscribeAllObservers() override {
        std::lock_guard delivering(m_delivery);
        m_observers.clear();
    }

private:
    bool setUp(const std::string& name, unsigned int size, bool created) {
        m_name = name;
        m_size = size;
        m_created = created;
        return m_open = m_registerSelf(*this);
    }

    const Kind m_kind;
    const std::function<bool(FakeSegment&)> m_registerSelf;
    std::string m_name;
    std::atomic<unsigned int> m_size{0};
    std::atomic<bool> m_created{false};
    std::atomic<bool> m_open{false};
    bool m_isClosed = false;
    std::atomic<int> m_failedWrites{0};
    mutable std::mutex m_delivery;
    std::set<shared_memory::SharedMemoryObserverI*> m_observers;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    Reader m_reader = Reader::Takes;
    std::vector<std::string> m_written;
};

class FakeMachine : public VirtualChannelAgent::AgentEnvironment {
public:
    // What the test sets.
    std::atomic<bool> otherAgentIsActive{false};
    std::atomic<bool> segmentsFail{false};
    std::atomic<std::uint64_t> clock{1'000'000};
    std::atomic<std::chrono::microseconds> pauseTakes{std::chrono::microseconds(200)};
    std::atomic<std::chrono::milliseconds> closeTakes{std::chrono::milliseconds(0)};
    std::function<void(const std::string&)> onSegmentSetUp;  // on the agent's thread
    // What other processes have open; everything unless the test says so.
    void setOpenElsewhere(std::set<std::string> names) {
        std::lock_guard lock(m_mutex);
        m_openElsewhere = std::move(names);
    }

    // What the agent did.
    std::atomic<bool> isMarked{false};
    std::atomic<int> watchesEnded{0};
    std::atomic<int> pauses{0};
    std::atomic<int> pausedMs{0};

    std::set<std::string> peerSegments() const {
        std::lock_guard lock(m_mutex);
        return m_peerSegments;
    }
    // The segment that was set up last under that name; null when there is none.
    std::shared_ptr<FakeSegment> segment(const std::string& name) const {
        std::lock_guard lock(m_mutex);
        const auto found = m_byName.find(name);
        return found == m_byName.end() ? nullptr : found->second;
    }
    std::size_t segmentCount() const {
        std::lock_guard lock(m_mutex);
        return m_byName.size();
    }
    int openSegments() const {
        std::lock_guard lock(m_mutex);
        return static_cast<int>(
            std::count_if(m_byName.begin(), m_byName.end(),
                          [](const auto& segment) { return segment.second->isOpen(); }));
    }

    // Lets `ms` pass, at the end of which the waiting thread goes on, and waits until it is back
    // for its next wait. (Setting `clock` alone is somebody setting the wall clock.)
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
        return std::make_shared<FakeSegment>(
            kind, [this](FakeSegment& self) { return registerSegment(self); });
    }
    bool isSegmentInUseElsewhere(const std::string& name) override {
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
    bool registerSegment(FakeSegment& segment) {
        const std::string name = segment.getName();
        if (onSegmentSetUp) onSegmentSetUp(name);
        if (segmentsFail) return false;
        segment.closeTakes = closeTakes.load();
        std::lock_guard lock(m_mutex);
        m_byName[name] = segment.shared_from_this();
        return true;
    }

    mutable std::mutex m_mutex;
    std::map<std::string, std::shared_ptr<FakeSegment>> m_byName;
    std::set<std::string> m_peerSegments;
    std::optional<std::set<std::string>> m_openElsewhere;
    std::atomic<std::uint64_t> m_elapsed{0};
    std::atomic<int> m_waiting{0};
    std::atomic<int> m_waits{0};
};

}  // namespace testsupport
