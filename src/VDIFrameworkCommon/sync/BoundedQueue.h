#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "LocalMutex.h"

namespace VDIFrameworkCommon {

// A queue from producers to consumers, oldest first, limited in messages and bytes. It keeps the
// newest messages; the newest of all always fits, however large. Bytes are what a message's size()
// says; messages without size() count as 0. Thread-safe.
template <class Message>
class BoundedQueue {
public:
    struct Limits {
        std::size_t messages;
        std::size_t bytes = std::numeric_limits<std::size_t>::max();
    };

    explicit BoundedQueue(Limits limits) : m_limits(limits) {}

    // Appends the message, and drops the oldest ones to make room. Returns how many.
    std::size_t push(Message message) {
        return push(std::move(message), [](const Message&) { return true; });
    }
    // The same, but a message for which `mayGo` is false is dropped only when no other is left, and
    // with a lower limit in bytes.
    template <class MayGo>
    std::size_t push(Message message, const MayGo& mayGo,
                     std::size_t mostBytes = std::numeric_limits<std::size_t>::max()) {
        std::vector<Message> dropped;  // destroyed outside the lock
        bool wasEmpty;
        {
            LocalLock lock(m_mutex);
            const std::size_t bytes = bytesOf(message);
            const std::size_t most = std::min(mostBytes, m_limits.bytes);
            while (!m_messages.empty() && !hasRoomFor(bytes, most)) dropOne(mayGo, dropped);
            wasEmpty = m_messages.empty();
            m_messages.push_back(std::move(message));
            m_bytes += bytes;
            m_pushed++;
        }
        // A consumer that is not waiting finds the message by itself.
        if (wasEmpty) m_condition.notify_all();
        return dropped.size();
    }

    // Counts a message that `pass` hands on directly, past the queue. False, without a call of
    // `pass`, while a message waits or the consumer has one in hand.
    template <class Pass>
    bool bypass(const Pass& pass) {
        LocalLock lock(m_mutex);
        if (!m_messages.empty() || m_isInHand || !pass()) return false;
        m_pushed++;
        return true;
    }

    // Takes the oldest message, waiting for one while `goOn()` is true. Queued messages are
    // returned even after that; empty when there is none. A consumer has the message in hand until
    // it calls again.
    template <class GoOn>
    std::optional<Message> pop(const GoOn& goOn) {
        LocalLock lock(m_mutex);
        m_isInHand = false;
        while (m_messages.empty() && goOn()) m_condition.wait(m_mutex);
        return takeFront();
    }
    // The same; also empty when `deadline` has passed.
    template <class Deadline, class GoOn>
    std::optional<Message> popUntil(const Deadline& deadline, const GoOn& goOn) {
        LocalLock lock(m_mutex);
        m_isInHand = false;
        while (m_messages.empty() && goOn() && Deadline::clock::now() < deadline)
            m_condition.wait_until(m_mutex, deadline);
        return takeFront();
    }

    // Makes waiting consumers check `goOn()` again. Call it after the change: taking the lock in
    // between ensures that no consumer checks before the change and waits after it.
    void wake() {
        { LocalLock lock(m_mutex); }
        m_condition.notify_all();
    }

    // Whether none waits and none is in hand.
    bool isIdle() const {
        LocalLock lock(m_mutex);
        return m_messages.empty() && !m_isInHand;
    }
    std::size_t size() const {
        LocalLock lock(m_mutex);
        return m_messages.size();
    }
    // How many have been appended so far, and how many of them have been taken or dropped.
    std::uint64_t pushed() const {
        LocalLock lock(m_mutex);
        return m_pushed;
    }
    std::uint64_t left() const {
        LocalLock lock(m_mutex);
        return m_pushed - m_messages.size();
    }

private:
    static std::size_t bytesOf(const Message& message) {
        if constexpr (requires { message.size(); }) {
            return message.size();
        } else {
            return 0;
        }
    }
    bool hasRoomFor(std::size_t bytes, std::size_t most) const NORVO_REQUIRES(m_mutex) {
        return m_messages.size() < m_limits.messages && bytes <= most && m_bytes <= most - bytes;
    }
    template <class MayGo>
    void dropOne(const MayGo& mayGo, std::vector<Message>& dropped) NORVO_REQUIRES(m_mutex) {
        auto oldest = std::find_if(m_messages.begin(), m_messages.end(), mayGo);
        if (oldest == m_messages.end()) oldest = m_messages.begin();
        dropped.push_back(std::move(*oldest));
        m_bytes -= bytesOf(dropped.back());
        m_messages.erase(oldest);
    }
    std::optional<Message> takeFront() NORVO_REQUIRES(m_mutex) {
        if (m_messages.empty()) return std::nullopt;
        std::optional<Message> message(std::move(m_messages.front()));
        m_messages.pop_front();
        m_bytes -= bytesOf(*message);
        m_isInHand = true;
        return message;
    }

    const Limits m_limits;
    mutable LocalMutex m_mutex;
    LocalCondition m_condition;
    std::deque<Message> m_messages NORVO_GUARDED_BY(m_mutex);
    std::size_t m_bytes NORVO_GUARDED_BY(m_mutex) = 0;
    bool m_isInHand NORVO_GUARDED_BY(m_mutex) = false;
    std::uint64_t m_pushed NORVO_GUARDED_BY(m_mutex) = 0;
};

}  // namespace VDIFrameworkCommon
