#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <utility>

#include "LockOrder.h"

namespace VirtualChannelAgent {

// The queue between those who have messages and the one thread that takes them. Holds at most 1001:
// the next one drops the oldest. Thread-safe.
template <class Message>
class BoundedQueue {
public:
    static constexpr std::size_t kCapacity = 1001;

    // False when the oldest message had to go to make space.
    bool push(Message message) NORVO_TAKES_LEAF {
        std::optional<Message> oldest;  // destroyed outside the lock
        bool wasEmpty;
        {
            lock_order::OrderedLock lock(m_mutex, lock_order::leaf);
            if (m_messages.size() >= kCapacity) {
                oldest = std::move(m_messages.front());
                m_messages.pop_front();
            }
            wasEmpty = m_messages.empty();
            m_messages.push_back(std::move(message));
        }
        // A consumer that is not waiting finds the message by itself.
        if (wasEmpty) m_condition.notify_all();
        return !oldest;
    }

    // The oldest message, waiting for one as long as `goOn()`. When that has become false, what is
    // still queued comes out all the same; empty when there is nothing.
    template <class GoOn>
    std::optional<Message> pop(const GoOn& goOn) NORVO_TAKES_LEAF {
        lock_order::OrderedLock lock(m_mutex, lock_order::leaf);
        while (m_messages.empty() && goOn()) m_condition.wait(m_mutex);
        if (m_messages.empty()) return std::nullopt;
        std::optional<Message> message(std::move(m_messages.front()));
        m_messages.pop_front();
        return message;
    }

    // Makes waiting consumers look at `goOn()` again. Call it after the change: taking the lock
    // between makes sure that a consumer has not looked before it and waits after it.
    void wake() NORVO_TAKES_LEAF {
        { lock_order::OrderedLock lock(m_mutex, lock_order::leaf); }
        m_condition.notify_all();
    }

    std::size_t size() const NORVO_TAKES_LEAF {
        lock_order::OrderedLock lock(m_mutex, lock_order::leaf);
        return m_messages.size();
    }

    void clear() NORVO_TAKES_LEAF {
        std::deque<Message> dropped;
        lock_order::OrderedLock lock(m_mutex, lock_order::leaf);
        dropped.swap(m_messages);
    }

private:
    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_condition;
    std::deque<Message> m_messages NORVO_GUARDED_BY(m_mutex);
};

}  // namespace VirtualChannelAgent
