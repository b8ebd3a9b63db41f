// Shared by the segment tests.
#pragma once

#include <sys/resource.h>

#include "MappedObject.h"
#include "NamedObject.h"
#include "Numbered.h"
#include "SharedMemoryFactory.h"
#include "SharedMemoryMacosx.h"

namespace segmenttest {

using namespace shared_memory;
using namespace testsupport;
using std::chrono::milliseconds;

// A segment name that is unique in this run.
inline std::string uniqueName() {
    static std::atomic<int> next{0};
    return "segment" + std::to_string(getpid()) + "_" + std::to_string(next++);
}

// The shared-memory object of a segment, and its path in the system.
inline std::string objectOf(const std::string& name) {
    return std::to_string(geteuid()) + "DEFVDI_" + name;
}
inline std::string pathOf(const std::string& name) {
    return "/dev/shm" + VDIFrameworkCommon::sharedMemoryObjectName(objectOf(name));
}

// The paths of the objects beside it: mutex, conditions and registry.
inline Texts pathsBeside(const std::string& name) {
    using VDIFrameworkCommon::NamedObject;
    using Kind = NamedObject::Kind;
    const std::string object = kSegmentObjectPrefix + name;
    Texts names{NamedObject::objectName(Kind::Mutex, object),
                NamedObject::objectName(Kind::Condition, object + kReadConditionSuffix),
                NamedObject::objectName(Kind::Condition, object + kWriteConditionSuffix),
                NamedObject::objectName(Kind::Registry, SegmentMapping::prefixed(name))};
    for (std::string& path : names)
        path = "/dev/shm" + VDIFrameworkCommon::sharedMemoryObjectName(path);
    return names;
}

inline bool write(SharedMemoryI& segment, const std::string& message) {
    return segment.WriteData(message.data(), static_cast<unsigned int>(message.size()));
}
inline std::string read(SharedMemoryI& segment, unsigned int timeout = 5000) {
    unsigned int length = 0;
    std::string message = segment.ReadData(length, timeout);
    EXPECT_EQ(length, message.size());
    return message;
}

inline bool crosses(SharedMemoryI& from, SharedMemoryI& to, const std::string& message) {
    return write(from, message) && read(to) == message;
}

inline std::shared_ptr<SharedMemoryI> plain() {
    return getSharedMemoryInstance(ESharedMemoryType::Plain);
}
inline std::shared_ptr<SharedMemoryI> broadcast() {
    return getSharedMemoryInstance(ESharedMemoryType::Broadcast);
}

// A plain segment with both ends in this process.
struct PlainPair {
    explicit PlainPair(unsigned int capacity) {
        EXPECT_TRUE(reader->Open(name, capacity));
        EXPECT_TRUE(writer->Create(name, capacity));
    }
    const std::string name = uniqueName();
    const std::shared_ptr<SharedMemoryI> reader = plain();
    const std::shared_ptr<SharedMemoryI> writer = plain();
};

// The peak memory use of this process so far, in KiB.
inline long peakMemory() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Checks that no numbered message of a source is damaged, repeated or missing. The first wrong one
// fails the test.
class Checker : public SharedMemoryObserverI {
public:
    void onNewMessageReceived(std::string message, SharedMemoryI* /*source*/) override {
        const auto id = readNumbered(message);
        const bool right = id && id->number == m_expected[id->source];
        if (!right && !std::exchange(m_isWrong, true))
            ADD_FAILURE() << "after " << m_count << " came " << (id ? int(id->number) : -1);
        if (!id) return;
        m_expected[id->source] = id->number + 1;
        m_source = id->source;
        ++m_count;
    }
    std::uint32_t count() const { return m_count; }
    // The source of the latest message.
    std::uint32_t source() const { return m_source; }

private:
    bool m_isWrong = false;
    std::atomic<std::uint32_t> m_count{0};
    std::atomic<std::uint32_t> m_source{0};
    std::map<std::uint32_t, std::uint32_t> m_expected;
};

// Collects the messages it observes. `action` is called before each is stored.
class Collector : public SharedMemoryObserverI {
public:
    using Action = std::function<void(SharedMemoryI& source)>;
    explicit Collector(Action action = {}) : m_action(std::move(action)) {}
    void onNewMessageReceived(std::string message, SharedMemoryI* source) override {
        if (m_action) m_action(*source);
        std::lock_guard lock(m_mutex);
        m_messages.push_back(std::move(message));
    }
    Texts messages() const {
        std::lock_guard lock(m_mutex);
        return m_messages;
    }
    std::string last() const {
        std::lock_guard lock(m_mutex);
        return m_messages.empty() ? std::string() : m_messages.back();
    }
    bool waitForCount(std::size_t count) const {
        return eventually([&] { return messages().size() >= count; });
    }

private:
    const Action m_action;
    mutable std::mutex m_mutex;
    Texts m_messages;
};

// A segment's shared-memory object as another program would map it.
class RawSegment : public MappedObject {
public:
    explicit RawSegment(const std::string& name) : MappedObject(objectOf(name)) {}

    std::int64_t word64(std::size_t offset) const { return at<std::int64_t>(offset); }
    std::uint32_t word32(std::size_t offset) const { return at<std::uint32_t>(offset); }
    std::string bytes(std::size_t offset, std::size_t length) const {
        return {data() + offset, length};
    }
    template <class T>
    void put(std::size_t offset, T value) {
        at<T>(offset) = value;
    }

private:
    template <class T>
    std::atomic<T>& at(std::size_t offset) const {
        return *reinterpret_cast<std::atomic<T>*>(data() + offset);
    }
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

// A segment whose clock is set by the test; all segments of the process share it.
inline std::atomic<unsigned int> g_testTime{100000};
inline unsigned int testTime() { return g_testTime; }
template <class Segment>
using Clocked = WithClock<Segment, testTime>;

}  // namespace segmenttest
