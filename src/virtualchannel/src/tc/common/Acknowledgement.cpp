#include "Acknowledgement.h"

#include <charconv>
#include <string_view>

#include "Log.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::LocalMutex;

namespace {

struct Slot {
    LocalMutex mutex;
    std::shared_ptr<Acknowledgement> instance NORVO_GUARDED_BY(mutex);
};

Slot& slot() {
    static Slot* const only = new Slot;  // outlives every thread that may use it
    return *only;
}

bool isDecimalTextOf(int number, std::string_view text) {
    char digits[16];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    return text == std::string_view(digits, static_cast<std::size_t>(end - digits));
}

}  // namespace

std::shared_ptr<Acknowledgement> Acknowledgement::GetInstance() {
    Slot& only = slot();
    LocalLock lock(only.mutex);
    if (!only.instance) only.instance = std::make_shared<Acknowledgement>();
    return only.instance;
}

void Acknowledgement::Shutdown() {
    Slot& only = slot();
    LocalLock lock(only.mutex);
    only.instance.reset();
}

Acknowledgement::Acknowledgement(std::chrono::milliseconds limit) : m_limit(limit) {}

int Acknowledgement::WaitForAck(int ack) {
    using Clock = std::chrono::steady_clock;
    NORVO_LOG(Trace, "Acknowledgement ", ack, " expected.");
    LocalLock lock(m_mutex);
    m_currentAck = ack;
    NORVO_LOG(Trace, "Waiting for an acknowledgement.");
    const Clock::time_point start = Clock::now();
    m_condition.wait_until(m_mutex, start + m_limit);
    const bool late = Clock::now() - start >= m_limit;
    if (late) NORVO_LOG(Trace, "WaitForAck(", ack, ") timed out");
    NORVO_LOG(Trace, "Acknowledgement event occured, continuing execution.");
    m_currentAck = kNothing;
    return late ? kTimedOut : 0;
}

int Acknowledgement::CheckAck(const void* data, unsigned int length) {
    NORVO_LOG(Trace, "Checking packet for acknowledgement.");
    const int expected = m_currentAck;
    if (expected < 0) {
        NORVO_LOG(Trace, "No current pending acknowledgement.");
        return -1;
    }
    NORVO_LOG(Trace, "Currently waiting on an acknowledgement, checking if it's the correct one.");
    if (!data || !isDecimalTextOf(expected, {static_cast<const char*>(data), length})) {
        NORVO_LOG(Trace, "A different ACK or other message has been recieved.");
        return -1;
    }
    NORVO_LOG(Trace, "The correct ACK has been recieved, notifying waiting thread.");
    wake();
    return 0;
}

void Acknowledgement::ClearCurrentAck() {
    if (m_currentAck < 0) {
        NORVO_LOG(Trace, "No pending ack.");
        return;
    }
    NORVO_LOG(Trace, "Signalling ACK to clear the wait.");
    wake();
}

void Acknowledgement::wake() {
    LocalLock lock(m_mutex);
    m_condition.notify_all();
}

}  // namespace NorvoVirtualChannel::tc
