#include "Transfer.h"

#include <cstdio>
#include <cstring>

#include "StopSignal.h"

namespace vcctl {

using NorvoStreamClient::Reason;
using NorvoStreamClient::Status;
using Clock = std::chrono::steady_clock;

Clock::time_point endOfWait(double wait) {
    return wait > 0 ? after(wait) : Clock::time_point::max();
}

TransferLink::TransferLink(SessionClient& session, const std::string& name, Role role,
                           unsigned int capacity, double wait)
    : m_session(session), m_name(name), m_role(role) {
    NorvoStreamClient::ConnectionOptions options;
    if (capacity != NorvoStreamClient::kDefaultCapacity) options.capacity = capacity;
    if (wait > 0) options.outage = std::chrono::milliseconds(static_cast<long>(wait * 1000));
    m_connection = session.connection(name, role == Role::Send, options);
}

std::string TransferLink::nobodyText() const {
    const bool sends = m_role == Role::Send;
    return std::string("the far side is there, but nobody ") + (sends ? "receives" : "sends") +
           ": start vcctl " + (sends ? "recv " : "send ") + m_name + " there";
}

void TransferLink::fail(const Status& why) const {
    const bool sends = m_role == Role::Send;
    if (why.reason() == Reason::Timeout && !m_open) throw LinkLost(nobodyText(), false);
    const bool hasLeft = why.reason() == Reason::PeerGone || why.reason() == Reason::Ended;
    if (hasLeft && sends && !m_takesPart)
        throw NoPartner("the program at the far end of '" + m_name +
                        "' left without receiving: start vcctl recv " + m_name + " there");
    if (why.reason() == Reason::PeerGone)
        throw LinkLost(sends ? "the receiver is gone" : "the sender is gone", m_open);
    if (why.reason() == Reason::Ended)
        throw LinkLost(sends ? "the receiver ended without a word" : "the sender ended too early",
                       m_open);
    throw LinkLost(m_session.explain(why, m_name), m_open);
}

void TransferLink::check(const Status& status) const {
    StopSignal::throwIfRequested();
    if (status) return;
    if (!isTransient(status)) fail(status);
    // The call timed out before it was complete; the connection itself says when it has failed.
    checkAlive();
}

void TransferLink::checkAlive() const {
    if (const Status now = m_connection->status(); !now) fail(now);
}

void TransferLink::waitUntilOpen(TimePoint giveUp) {
    const auto noteAt = after(1);
    bool noted = false;
    for (Status open; !(open = m_connection->waitUntilOpen(kPollTime));) {
        check(open);
        const auto now = Clock::now();
        if (now >= giveUp) fail(open);
        m_session.noteSilence(open, m_name);
        if (noted || now < noteAt || open.reason() != Reason::Timeout) continue;
        noted = true;
        std::fprintf(stderr, "vcctl: waiting: %s\n", nobodyText().c_str());
    }
    m_open = true;
}

bool TransferLink::hasInput() {
    if (!m_ahead.empty()) return true;
    char byte = 0;
    std::size_t got = 0;
    if (m_connection->read(&byte, 1, got, std::chrono::milliseconds(0))) m_ahead.push_back(byte);
    return got > 0;
}

void TransferLink::finish() { check(m_connection->finish()); }

void TransferLink::awaitEnd() {
    char bytes[256];
    std::size_t got = 0;
    for (;;) {
        const Status status = m_connection->read(bytes, sizeof bytes, got, kPollTime);
        if (status.reason() == Reason::Ended) return;
        check(status);
    }
}

bool TransferLink::settle(std::chrono::seconds limit) {
    const auto deadline = Clock::now() + limit;
    Status settled;
    while (!(settled = m_connection->flush(kPollTime)) && isTransient(settled) &&
           Clock::now() < deadline && !StopSignal::requested()) {
    }
    return static_cast<bool>(settled);
}

std::uint64_t TransferLink::readNumber() {
    std::uint64_t number = 0;
    read(&number, sizeof number);
    return number;
}

void TransferLink::expectTag(const char* tag, TimePoint giveUp) {
    // A receiver speaks at once; a sender may have to read its file first.
    bool noted = m_role != Role::Send;
    const auto noteAt = after(1);
    char bytes[8];
    read(bytes, sizeof bytes, [&] {
        const auto now = Clock::now();
        if (now < giveUp && (noted || now < noteAt)) return;
        const std::string text = "the program at the far end of '" + m_name +
                                 "' sends, too, or is not vcctl: start vcctl recv " + m_name +
                                 " there";
        if (now >= giveUp) throw CommandError(text);
        std::fprintf(stderr, "vcctl: waiting: %s\n", text.c_str());
        noted = true;
    });
    if (std::memcmp(bytes, tag, sizeof bytes) != 0)
        throw CommandError("the program at the far end of '" + m_name + "' is not vcctl " +
                           (m_role == Role::Send ? "recv" : "send") + ", or of another version");
    m_takesPart = true;
}

}  // namespace vcctl
