#include "LateSegment.h"

#include <new>
#include <utility>

#include "Contained.h"

namespace VirtualChannelAgent {

using VDIFrameworkCommon::LocalLock;

namespace {

// 0 when none is worth a try. Local processes ask for this many bytes where room is short.
unsigned int smallerThan(unsigned int size, const shared_memory::OpenError& error) {
    constexpr unsigned int kUsual = 65536;
    unsigned int smaller = 0;
    if (error.failure == shared_memory::OpenFailure::CapacityMismatch)
        smaller = error.existingCapacity;
    if (error.failure == shared_memory::OpenFailure::NoSpace) smaller = kUsual;
    return smaller < size ? smaller : 0;
}

}  // namespace

bool SegmentSetup::run(shared_memory::SharedMemoryI& segment, const std::string& name,
                       unsigned int size) const {
    const auto attempt = [&](unsigned int bytes) {
        return creates ? segment.Create(name, bytes) : segment.Open(name, bytes);
    };
    if (attempt(size)) return true;
    const unsigned int smaller = isBroadcast ? 0 : smallerThan(size, segment.openError());
    return smaller != 0 && attempt(smaller);
}

LateSegment::LateSegment(Make make, std::string name, unsigned int size, const SegmentSetup& setup)
    : m_make(std::move(make)), m_name(std::move(name)), m_size(size), m_setup(setup) {}

bool LateSegment::tryAgain() {
    LocalLock lock(m_mutex);
    if (m_closed || m_isSetUp) return true;
    const auto segment = m_make();
    if (!segment || !m_setup.run(*segment, m_name, m_size)) return false;
    for (auto* observer : m_observers) {
        if (segment->subscribeObserver(observer)) continue;
        segment->unsubscribeAllObservers();
        segment->Close();
        return false;
    }
    m_segment = segment;
    m_isSetUp = true;
    return true;
}

bool LateSegment::Create(const std::string& /*name*/, unsigned int /*size*/) { return false; }
bool LateSegment::Open(const std::string& /*name*/, unsigned int /*size*/) { return false; }

bool LateSegment::Close() {
    LocalLock lock(m_mutex);
    m_closed = true;
    return m_isSetUp && m_segment->Close();
}

bool LateSegment::WriteData(const void* data, const unsigned int& length) {
    return m_isSetUp && m_segment->WriteData(data, length);
}

std::string LateSegment::ReadData(unsigned int& length, unsigned int timeout) {
    length = 0;
    return m_isSetUp ? m_segment->ReadData(length, timeout) : std::string();
}

bool LateSegment::ReadData(void** data, unsigned int& length) {
    return m_isSetUp && m_segment->ReadData(data, length);
}

bool LateSegment::subscribeObserver(shared_memory::SharedMemoryObserverI* observer) {
    LocalLock lock(m_mutex);
    if (m_isSetUp) return m_segment->subscribeObserver(observer);
    try {
        m_observers.push_back(observer);
    } catch (const std::bad_alloc& failure) {
        VDIFrameworkCommon::reportFailure("Subscribing an observer", failure.what());
        return false;
    }
    return true;
}

// Without the lock, as the segment waits for a running call of the observer.
void LateSegment::unsubscribeObserver(shared_memory::SharedMemoryObserverI* observer) {
    {
        LocalLock lock(m_mutex);
        std::erase(m_observers, observer);
    }
    if (m_isSetUp) m_segment->unsubscribeObserver(observer);
}

void LateSegment::unsubscribeAllObservers() {
    {
        LocalLock lock(m_mutex);
        m_observers.clear();
    }
    if (m_isSetUp) m_segment->unsubscribeAllObservers();
}

}  // namespace VirtualChannelAgent
