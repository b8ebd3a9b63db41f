#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LocalMutex.h"
#include "SharedMemoryI.h"

namespace VirtualChannelAgent {

// How a segment is set up, and the log texts for it.
struct SegmentSetup {
    const char* begun;
    bool isBroadcast;
    bool creates;  // as its writer; otherwise opens it as a reader
    const char* unavailable;
    const char* failed;

    // With a smaller size if `size` is not possible: longer messages then go in several chunks. A
    // broadcast has only one.
    bool run(shared_memory::SharedMemoryI& segment, const std::string& name,
             unsigned int size) const;
};

// A segment that could not be set up when requested, for example for lack of memory. Until
// tryAgain() succeeds, reads and writes fail and observers wait. Thread-safe.
class LateSegment final : public shared_memory::SharedMemoryI {
public:
    // Makes a segment that is not set up yet.
    using Make = std::function<std::shared_ptr<SharedMemoryI>()>;

    LateSegment(Make make, std::string name, unsigned int size, const SegmentSetup& setup);

    // True when no further try is needed: it is set up, or has been closed.
    bool tryAgain();

    // Always fail: only tryAgain() sets it up.
    bool Create(const std::string& name, unsigned int size) override;
    bool Open(const std::string& name, unsigned int size) override;
    bool Close() override;
    std::string getName() override { return m_name; }
    bool WriteData(const void* data, const unsigned int& length) override;
    std::string ReadData(unsigned int& length, unsigned int timeout) override;
    bool ReadData(void** data, unsigned int& length) override;
    bool subscribeObserver(shared_memory::SharedMemoryObserverI* observer) override;
    void unsubscribeObserver(shared_memory::SharedMemoryObserverI* observer) override;
    void unsubscribeAllObservers() override;

private:
    const Make m_make;
    const std::string m_name;
    const unsigned int m_size;
    const SegmentSetup& m_setup;

    VDIFrameworkCommon::LocalMutex m_mutex;
    std::vector<shared_memory::SharedMemoryObserverI*> m_observers NORVO_GUARDED_BY(m_mutex);
    bool m_closed NORVO_GUARDED_BY(m_mutex) = false;
    std::atomic<bool> m_isSetUp{false};
    std::shared_ptr<shared_memory::SharedMemoryI> m_segment;  // written once, before m_isSetUp
};

}  // namespace VirtualChannelAgent
