// A slot guarded by Boost.Interprocess's named mutex and condition, and its message queue.
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/sync/named_condition.hpp>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include "SlotHop.h"

namespace bench {

namespace {

namespace ipc = boost::interprocess;

boost::posix_time::ptime patienceEnd() {
    return boost::posix_time::microsec_clock::universal_time() +
           boost::posix_time::milliseconds(kHopPatienceMs);
}

class NamedSignal {
public:
    struct Shared {
        bool full;
    };

    NamedSignal(const HopEnd& end, Shared& shared)
        : m_shared(shared),
          m_end(end),
          m_mutex(ipc::open_or_create, (end.name + ".mutex").c_str()),
          m_condition(ipc::open_or_create, (end.name + ".condition").c_str()) {}

    ~NamedSignal() {
        if (!m_end.creates) return;
        ipc::named_mutex::remove((m_end.name + ".mutex").c_str());
        ipc::named_condition::remove((m_end.name + ".condition").c_str());
    }
    NamedSignal(const NamedSignal&) = delete;
    NamedSignal& operator=(const NamedSignal&) = delete;

    void await(bool full) {
        ipc::scoped_lock<ipc::named_mutex> lock(m_mutex);
        while (m_shared.full != full) {
            if (!m_condition.timed_wait(lock, patienceEnd()))
                throw std::runtime_error("the peer is silent");
        }
    }

    void change(bool full) {
        {
            ipc::scoped_lock<ipc::named_mutex> lock(m_mutex);
            m_shared.full = full;
        }
        m_condition.notify_one();
    }

private:
    Shared& m_shared;
    HopEnd m_end;
    ipc::named_mutex m_mutex;
    ipc::named_condition m_condition;
};

class QueueHop : public Hop {
public:
    explicit QueueHop(const HopEnd& end) : m_end(end) {
        if (end.creates) {
            m_queue = std::make_unique<ipc::message_queue>(ipc::create_only, end.name.c_str(),
                                                           kDepth, end.capacity);
        } else {
            m_queue = std::make_unique<ipc::message_queue>(ipc::open_only, end.name.c_str());
        }
    }
    ~QueueHop() override {
        if (m_end.creates) ipc::message_queue::remove(m_end.name.c_str());
    }
    QueueHop(const QueueHop&) = delete;
    QueueHop& operator=(const QueueHop&) = delete;

    void send(const void* data, std::size_t length) override {
        const char* from = static_cast<const char*>(data);
        for (std::size_t sent = 0; sent < length;) {
            const std::size_t chunk = std::min(m_end.capacity, length - sent);
            if (!m_queue->timed_send(from + sent, chunk, 0, patienceEnd()))
                throw std::runtime_error("the peer is silent");
            sent += chunk;
        }
    }

    // The queue requires room for its longest message, so the last chunk goes through a separate
    // buffer when the message has less room left.
    void receive(std::string& message) override {
        for (std::size_t received = 0; received < message.size();) {
            const std::size_t room = message.size() - received;
            if (room >= m_end.capacity) {
                received += receiveChunk(message.data() + received, room);
            } else {
                m_spare.resize(m_end.capacity);
                const std::size_t chunk = receiveChunk(m_spare.data(), m_spare.size());
                if (chunk > room) throw std::runtime_error("a chunk of the wrong length");
                message.replace(received, chunk, m_spare, 0, chunk);
                received += chunk;
            }
        }
    }

private:
    static constexpr std::size_t kDepth = 8;

    std::size_t receiveChunk(char* to, std::size_t room) {
        ipc::message_queue::size_type length = 0;
        unsigned int priority = 0;
        if (!m_queue->timed_receive(to, room, length, priority, patienceEnd()))
            throw std::runtime_error("the peer is silent");
        return length;
    }

    HopEnd m_end;
    std::unique_ptr<ipc::message_queue> m_queue;
    std::string m_spare;
};

const HopKindRegistrar mailbox("Boost mailbox", [](const HopEnd& end) -> std::unique_ptr<Hop> {
    return std::make_unique<SlotHop<NamedSignal>>(end);
});
const HopKindRegistrar queue("Boost queue", [](const HopEnd& end) -> std::unique_ptr<Hop> {
    return std::make_unique<QueueHop>(end);
});

}  // namespace

}  // namespace bench
