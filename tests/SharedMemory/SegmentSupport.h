// What the segment tests share.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Eventually.h"
#include "SharedMemoryFactory.h"
#include "SharedMemoryMacosx.h"

namespace segmenttest {

using namespace shared_memory;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using testsupport::eventually;
using testsupport::since;

// A segment name that no other test of this run has.
std::string uniqueName();

// A message that tells what it is, and in which every byte depends on that.
struct Numbered {
    std::uint32_t source;
    std::uint32_t number;
};
inline constexpr std::size_t kShortestNumbered = 12;
std::string numberedMessage(Numbered id, std::size_t length);
// Nothing when any byte is not as numberedMessage made it.
std::optional<Numbered> readNumbered(const std::string& message);

inline bool write(SharedMemoryI& segment, const std::string& message) {
    return segment.WriteData(message.data(), static_cast<unsigned int>(message.size()));
}
inline std::string read(SharedMemoryI& segment, unsigned int timeout = 5000) {
    unsigned int length = 0;
    std::string message = segment.ReadData(length, timeout);
    EXPECT_EQ(length, message.size());
    return message;
}

inline std::shared_ptr<SharedMemoryI> plain() {
    return getSharedMemoryInstance(ESharedMemoryType::Plain);
}

// A plain segment with both its ends in this process.
struct PlainPair {
    explicit PlainPair(unsigned int capacity) {
        EXPECT_TRUE(reader->Open(name, capacity));
        EXPECT_TRUE(writer->Create(name, capacity));
    }
    const std::string name = uniqueName();
    const std::shared_ptr<SharedMemoryI> reader = plain();
    const std::shared_ptr<SharedMemoryI> writer = plain();
};

// By how many KiB the most memory that this process has used grows from now on.
class PeakMemory {
public:
    long growth() const { return now() - m_before; }

private:
    static long now() {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss;
    }
    const long m_before = now();
};

// How much memory this process uses now.
long residentKiB();

// Checks numbered messages as they come: each undamaged, none twice, none missing within a source.
class Checker : public SharedMemoryObserverI {
public:
    void onNewMessageReceived(std::string message, SharedMemoryI* /*source*/) override {
        const auto id = readNumbered(message);
        if (!id || id->number != m_expected[id->source]) note(id);
        if (!id) return;
        m_expected[id->source] = id->number + 1;
        m_source = id->source;
        ++m_count;
    }
    // The first that was wrong; empty when none was.
    std::string wrong() const {
        std::lock_guard lock(m_mutex);
        return m_wrong;
    }
    std::uint32_t count() const { return m_count; }
    // Of the newest message.
    std::uint32_t source() const { return m_source; }

private:
    void note(const std::optional<Numbered>& id) {
        std::lock_guard lock(m_mutex);
        if (!m_wrong.empty()) return;
        m_wrong = "after " + std::to_string(m_count) + " came ";
        m_wrong += id ? std::to_string(id->source) + "/" + std::to_string(id->number) : "damage";
    }
    mutable std::mutex m_mutex;
    std::string m_wrong;
    std::atomic<std::uint32_t> m_count{0};
    std::atomic<std::uint32_t> m_source{0};
    std::map<std::uint32_t, std::uint32_t> m_expected;
};

// Keeps what it observes.
class Collector : public SharedMemoryObserverI {
public:
    void onNewMessageReceived(std::string message, SharedMemoryI* /*source*/) override {
        std::lock_guard lock(m_mutex);
        m_messages.push_back(std::move(message));
        m_changed.notify_all();
    }
    bool waitForCount(std::size_t count, milliseconds limit = std::chrono::seconds(20)) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return m_messages.size() >= count; });
    }
    bool waitForLast(const std::string& message, milliseconds limit) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(
            lock, limit, [&] { return !m_messages.empty() && m_messages.back() == message; });
    }
    std::vector<std::string> messages() const {
        std::lock_guard lock(m_mutex);
        return m_messages;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_messages;
};

// The bytes of a segment's object, as another program would map them.
class RawSegment {
public:
    // The second form takes the front of the object's name, too.
    explicit RawSegment(const std::string& name);
    RawSegment(const std::string& prefix, const std::string& name);
    ~RawSegment();
    RawSegment(const RawSegment&) = delete;
    RawSegment& operator=(const RawSegment&) = delete;

    std::size_t size() const { return m_size; }
    std::int64_t word64(std::size_t offset) const { return value<std::int64_t>(offset); }
    std::uint32_t word32(std::size_t offset) const { return value<std::uint32_t>(offset); }
    std::string bytes(std::size_t offset, std::size_t length) const {
        return {m_bytes + offset, length};
    }
    template <class T>
    void put(std::size_t offset, T value) {
        reinterpret_cast<std::atomic<T>*>(m_bytes + offset)->store(value);
    }

private:
    template <class T>
    T value(std::size_t offset) const {
        return reinterpret_cast<const std::atomic<T>*>(m_bytes + offset)->load();
    }
    std::size_t m_size = 0;
    char* m_bytes = nullptr;
};

template <class Segment, unsigned int (*kTime)()>
class WithClock : public Segment {
public:
    ~WithClock() override {
        if (this->isOpen()) this->Close();
    }

protected:
    unsigned int ElapsedMillisecond() override { return kTime(); }
};

// A segment whose clock a test moves; one for all of a process's segments.
inline std::atomic<unsigned int> g_testTime{100000};
inline unsigned int testTime() { return g_testTime; }
template <class Segment>
using Clocked = WithClock<Segment, testTime>;

}  // namespace segmenttest
