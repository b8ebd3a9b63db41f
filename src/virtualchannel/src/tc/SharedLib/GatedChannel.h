#pragma once

#include <atomic>

#include "TransportChannel.h"

namespace NorvoVirtualChannel::tc {

// A channel that drops packets in both directions unless the host has called it active while an
// observer was attached.
class GatedChannel : public TransportChannel {
protected:
    using TransportChannel::TransportChannel;

    bool isOpen() override { return m_active; }
    void beforeAvailabilityChange(bool available) override {
        m_active = available;
        TransportChannel::beforeAvailabilityChange(available);
    }
    void close() {
        m_active = false;
        noteAvailability();
    }

private:
    std::atomic<bool> m_active{false};
};

}  // namespace NorvoVirtualChannel::tc
