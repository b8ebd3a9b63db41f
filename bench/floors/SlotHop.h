// A mailbox of one slot: chunks of at most the slot's capacity, one at a time, joined by the
// reader. Mailboxes differ only in how an end waits for the slot to be full or free
// (`Signal`).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Hop.h"
#include "SharedArea.h"

namespace bench {

struct SlotHeader {
    std::uint64_t messageLength;
    std::uint64_t chunkLength;
};

// Signal: has `struct Shared` (zero-filled at first), `Signal(const HopEnd&, Shared&)`,
// `void await(bool full)` and `void change(bool full)`; await throws when the peer stays silent.
template <class Signal>
class SlotHop : public Hop {
public:
    explicit SlotHop(const HopEnd& end)
        : m_capacity(end.capacity),
          m_area(end.name, sizeof(Layout) + end.capacity, end.creates),
          m_layout(static_cast<Layout*>(m_area.address())),
          m_signal(end, m_layout->shared) {}

    void send(const void* data, std::size_t length) override {
        const char* from = static_cast<const char*>(data);
        for (std::size_t sent = 0; sent < length;) {
            const std::size_t chunk = std::min(m_capacity, length - sent);
            m_signal.await(false);
            m_layout->header = {length, chunk};
            std::memcpy(slot(), from + sent, chunk);
            m_signal.change(true);
            sent += chunk;
        }
    }

    void receive(std::string& message) override {
        for (std::size_t received = 0; received < message.size();) {
            m_signal.await(true);
            const SlotHeader header = m_layout->header;
            if (header.messageLength != message.size() ||
                header.chunkLength > message.size() - received) {
                throw std::runtime_error("a chunk of the wrong length");
            }
            std::memcpy(message.data() + received, slot(), header.chunkLength);
            m_signal.change(false);
            received += header.chunkLength;
        }
    }

private:
    struct Layout {
        alignas(64) typename Signal::Shared shared;
        alignas(64) SlotHeader header;
    };
    char* slot() const { return reinterpret_cast<char*>(m_layout + 1); }

    std::size_t m_capacity;
    SharedArea m_area;
    Layout* m_layout;
    Signal m_signal;
};

}  // namespace bench
