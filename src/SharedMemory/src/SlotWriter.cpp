#include "SlotWriter.h"

#include <algorithm>

#include "Log.h"
#include "MessageAssembler.h"

namespace shared_memory {

namespace {

constexpr std::chrono::milliseconds kLongestWait{2000};

}  // namespace

void SlotWriter::begin(bool isRenewed) {
    if (isRenewed) return;
    m_slot.header().newMessageId = 0;
    m_slot.header().readMessageId = 0;
}

bool SlotWriter::write(const void* data, unsigned int length, Clock::time_point deadline) {
    if (length > MessageAssembler::kLongest) {
        NORVO_LOG_REPEATED(m_tooLong, Warning, "Message too long!", m_slot.name(), ": ", length,
                           " bytes");
        return false;
    }
    const unsigned int capacity = m_slot.capacity();
    const auto* bytes = static_cast<const char*>(data);
    const unsigned int count = length / capacity + (length % capacity != 0 ? 1 : 0);
    for (unsigned int i = 0; i < count; ++i) {
        const auto now = Clock::now();
        const auto soundness = m_slot.check(now);
        // The earlier chunks are lost with the object they were placed in.
        const bool isBroken = soundness != SegmentSlot::Soundness::Sound && i > 0;
        if (isBroken || !waitWritable(now, std::min(deadline, now + kLongestWait))) {
            NORVO_LOG_REPEATED(m_notTaken, Error, "Memory is not writable: ", m_slot.name());
            return false;
        }
        const unsigned int sent = i * capacity;
        const unsigned int part = std::min(capacity, length - sent);
        if (!m_slot.place({count, i + 1, length, part}, bytes + sent)) return false;
    }
    return true;
}

bool SlotWriter::tryWrite(const void* data, unsigned int length) {
    if (length == 0 || length > std::min(kMostAtOnce, m_slot.capacity())) return false;
    return m_slot.tryPlace({1, 1, length, length}, static_cast<const char*>(data));
}

// A reader known to be alive need not notify first.
bool SlotWriter::waitWritable(Clock::time_point now, Clock::time_point deadline) {
    return m_slot.isMapped() &&
           m_slot.waitFor(
               SegmentSlot::Signal::Taken, now, deadline, [this] { return m_slot.isFree(); },
               [this] {
                   return m_slot.isFree() &&
                          m_slot.registry().hasLiving(SegmentRegistry::Role::Reader);
               });
}

}  // namespace shared_memory
