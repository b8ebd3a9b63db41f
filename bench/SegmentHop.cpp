// Our segment as one direction of messages, with and without spinning before a wait parks.
#include <stdexcept>

#include "AdaptiveSpin.h"
#include "SharedMemoryFactory.h"
#include "floors/Hop.h"

namespace bench {

namespace {

class SegmentHop : public Hop {
public:
    SegmentHop(const HopEnd& end, bool spins)
        : m_segment(
              shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Plain)) {
        VDIFrameworkCommon::AdaptiveSpin::setEnabled(spins);
        const auto capacity = static_cast<unsigned int>(end.capacity);
        const bool ready = end.writes ? m_segment->Create(end.name, capacity)
                                      : m_segment->Open(end.name, capacity);
        if (!ready) throw std::runtime_error("cannot set the segment up");
    }

    void send(const void* data, std::size_t length) override {
        const auto bytes = static_cast<unsigned int>(length);
        if (!m_segment->WriteData(data, bytes)) throw std::runtime_error("cannot write");
    }

    void receive(std::string& message) override {
        unsigned int length = 0;
        message = m_segment->ReadData(length, kHopPatienceMs);
        if (length == 0) throw std::runtime_error("the peer is silent");
    }

private:
    std::shared_ptr<shared_memory::SharedMemoryI> m_segment;
};

const HopKindRegistrar spinning("segment", [](const HopEnd& end) -> std::unique_ptr<Hop> {
    return std::make_unique<SegmentHop>(end, true);
});
const HopKindRegistrar parking("segment, no spin", [](const HopEnd& end) -> std::unique_ptr<Hop> {
    return std::make_unique<SegmentHop>(end, false);
});

}  // namespace

}  // namespace bench
