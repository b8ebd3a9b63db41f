// Named mutex and condition beside what the system offers.
//
// In the ping-pong each process is bound to its own processor. On a busy machine the scheduler
// may put both on one, where a wake-up is a mere switch and spinning is useless, and the rows of
// one run would not be comparable.
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "AdaptiveSpin.h"
#include "CpuTime.h"
#include "Harness.h"
#include "LatencyRecorder.h"
#include "NamedCondition.h"
#include "NamedMutex.h"
#include "Namespace.h"
#include "PeerProcess.h"
#include "floors/SharedArea.h"

namespace {

using VDIFrameworkCommon::AdaptiveSpin;
using VDIFrameworkCommon::NamedCondition;
using VDIFrameworkCommon::NamedMutex;

constexpr unsigned kPatienceMs = 10000;

// Fails if the process may not use that processor: then the rows are only less comparable.
void bindToProcessor(unsigned number) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(number, &one);
    sched_setaffinity(0, sizeof one, &one);
}

// Binds the calling thread to the first processor for a scope.
class Bound {
public:
    Bound() {
        sched_getaffinity(0, sizeof m_before, &m_before);
        bindToProcessor(0);
    }
    ~Bound() { sched_setaffinity(0, sizeof m_before, &m_before); }
    Bound(const Bound&) = delete;
    Bound& operator=(const Bound&) = delete;

private:
    cpu_set_t m_before{};
};

// One direction of a ping-pong: a count of the messages sent, and the wait for it.
class Signal {
public:
    virtual ~Signal() = default;
    virtual void send() = 0;
    // False after a time-out of kPatienceMs.
    virtual bool await() = 0;
};

struct SharedWords {
    struct alignas(64) Line {
        std::atomic<std::uint32_t> value;
    };
    Line lines[2];
};

class FutexSignal : public Signal {
public:
    explicit FutexSignal(std::atomic<std::uint32_t>& word) : m_word(word) {}
    void send() override {
        m_word.fetch_add(1);
        syscall(SYS_futex, &m_word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    }
    bool await() override {
        const timespec patience{kPatienceMs / 1000, 0};
        while (m_word.load() == m_seen) {
            if (syscall(SYS_futex, &m_word, FUTEX_WAIT, m_seen, &patience, nullptr, 0) != 0 &&
                errno == ETIMEDOUT) {
                return false;
            }
        }
        ++m_seen;
        return true;
    }

private:
    std::atomic<std::uint32_t>& m_word;
    std::uint32_t m_seen = 0;
};

// Used like in a segment: the mutex around each step, the notification after it.
class ConditionSignal : public Signal {
public:
    ConditionSignal(const std::string& name, std::atomic<std::uint32_t>& word) : m_word(word) {
        if (!m_mutex.create(name.c_str()) || !m_condition.create(name.c_str())) {
            throw std::runtime_error("cannot create the named objects");
        }
    }
    void send() override {
        m_mutex.lock();
        m_word.store(m_word.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        m_mutex.unlock();
        m_condition.notify();
    }
    bool await() override {
        m_mutex.lock();
        bool came = true;
        while (came && m_word.load(std::memory_order_relaxed) == m_seen) {
            came = m_condition.timed_wait(m_mutex, kPatienceMs);
        }
        m_mutex.unlock();
        ++m_seen;
        return came;
    }

private:
    std::atomic<std::uint32_t>& m_word;
    std::uint32_t m_seen = 0;
    NamedMutex m_mutex;
    NamedCondition m_condition;
};

std::unique_ptr<Signal> openSignal(const std::string& kind, const std::string& name,
                                   SharedWords& words, int direction) {
    auto& word = words.lines[direction].value;
    AdaptiveSpin::setEnabled(kind == "spin");
    if (kind == "futex") return std::make_unique<FutexSignal>(word);
    return std::make_unique<ConditionSignal>(name + std::to_string(direction), word);
}

std::string uniqueName(const char* prefix) {
    static int count = 0;
    return prefix + std::to_string(++count);
}

constexpr std::size_t kAreaSize = 4096;

SharedWords& wordsOf(const bench::SharedArea& area) {
    return *static_cast<SharedWords*>(area.address());
}

std::string areaName(const std::string& name) { return VDIFrameworkCommon::namespacedName(name); }

void measurePingPong(const std::string& kind, std::uint64_t rounds, bench::Sample& sample) {
    const Bound bound;
    const std::string name = uniqueName("pong");
    const bench::SharedArea area(areaName(name), kAreaSize, true);
    const auto there = openSignal(kind, name, wordsOf(area), 0);
    const auto back = openSignal(kind, name, wordsOf(area), 1);
    const std::uint64_t warmUp = rounds / 10 + 1;
    bench::PeerProcess peer("sync_returner", {kind, name, std::to_string(rounds + warmUp)});
    bench::waitUntilReady(peer);
    const auto play = [&](std::uint64_t count) {
        for (std::uint64_t i = 0; i < count; ++i) {
            there->send();
            if (!back->await()) throw std::runtime_error("the peer is silent");
        }
    };
    const auto cpu = [&] {
        return bench::ownCpuNanoseconds() + bench::cpuNanosecondsOfProcess(peer.pid());
    };
    play(warmUp);
    const std::uint64_t cpuBefore = cpu();
    const std::uint64_t start = bench::nowNanoseconds();
    play(rounds);
    const auto perRound = static_cast<double>(rounds) * 1000;
    sample.set("round trip", static_cast<double>(bench::nowNanoseconds() - start) / perRound, "µs");
    sample.set("cpu", static_cast<double>(cpu() - cpuBefore) / perRound, "µs");
    peer.writeLine("leave");
    AdaptiveSpin::setEnabled(true);
    if (peer.wait() != 0) throw std::runtime_error("the peer failed");
}

// A mutex that several processes lock over and over.
class Contended {
public:
    Contended(const std::string& kind, const std::string& name, bool create)
        : m_area(areaName(name), kAreaSize, create),
          m_system(kind == "pthread" ? static_cast<pthread_mutex_t*>(m_area.address()) : nullptr) {
        if (!m_system && !m_named.create(name.c_str())) {
            throw std::runtime_error("cannot create the mutex");
        }
        if (m_system && create) initialise();
    }

    void lockAndUnlock(std::uint64_t rounds) {
        for (std::uint64_t i = 0; i < rounds; ++i) {
            if (m_system) {
                pthread_mutex_lock(m_system);
                pthread_mutex_unlock(m_system);
            } else {
                m_named.lock();
                m_named.unlock();
            }
        }
    }

private:
    void initialise() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
        pthread_mutex_init(m_system, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }

    bench::SharedArea m_area;
    pthread_mutex_t* m_system;
    NamedMutex m_named;
};

void measureContended(const std::string& kind, std::uint64_t rounds, bench::Sample& sample) {
    const Bound bound;
    const std::string name = uniqueName("contended");
    Contended mutex(kind, name, true);
    bench::PeerProcess peer("sync_contender", {kind, name, std::to_string(rounds)});
    bench::waitUntilReady(peer);
    peer.writeLine("go");
    const std::uint64_t start = bench::nowNanoseconds();
    mutex.lockAndUnlock(rounds);
    if (peer.wait() != 0) throw std::runtime_error("the peer failed");
    const auto taken = static_cast<double>(bench::nowNanoseconds() - start);
    sample.set("time", taken / static_cast<double>(2 * rounds), "ns");
}

void declareUncontended(bench::Suite& suite) {
    suite.group("mutex, nobody else");
    const auto standard = suite.timed("std::mutex", [] {
        static std::mutex mutex;
        mutex.lock();
        bench::doNotOptimize(mutex);
        mutex.unlock();
    });
    const auto named = suite.timed("NamedMutex", [] {
        static NamedMutex mutex;
        static const bool created = mutex.create("uncontended");
        bench::doNotOptimize(created && mutex.lock() && mutex.unlock());
    });
    suite.goal("named lock + unlock, ns", named["time"], bench::atMost(60, 40));
    suite.goal("named lock + unlock", named["time"], standard["time"], bench::reported());
}

void declareContended(bench::Suite& suite) {
    suite.group("mutex, two processes");
    const std::uint64_t locks = suite.scaled(1000000);
    const auto robust = suite.measure("pthread robust, shared", [locks](bench::Sample& sample) {
        measureContended("pthread", locks, sample);
    });
    const auto contended = suite.measure(
        "NamedMutex", [locks](bench::Sample& sample) { measureContended("named", locks, sample); });
    suite.goal("contended lock + unlock", contended["time"], robust["time"], bench::reported());
}

void declarePingPong(bench::Suite& suite) {
    suite.group("condition, ping-pong of two processes");
    const auto declare = [&](const char* name, const char* kind, std::uint64_t rounds) {
        return suite.measure(name, [kind, count = suite.scaled(rounds)](bench::Sample& sample) {
            measurePingPong(kind, count, sample);
        });
    };
    const auto bare = declare("futex, parks", "futex", 20000);
    const auto parks = declare("NamedCondition, parks", "park", 20000);
    const auto spins = declare("NamedCondition, adaptive spin", "spin", 200000);
    suite.goal("round trip, parked", parks["round trip"], bare["round trip"],
               bench::atMost(1.25, 1.1));
    suite.goal("round trip, adaptive spin", spins["round trip"], bare["round trip"],
               bench::atMost(0.3, 0.15));
    suite.goal("processor time, adaptive spin", spins["cpu"], bare["cpu"], bench::atMost(0.5, 0.3));
}

}  // namespace

BENCH_ROLE(sync_returner) {
    bindToProcessor(1);
    const bench::SharedArea area(areaName(args[1]), kAreaSize, false);
    const auto there = openSignal(args[0], args[1], wordsOf(area), 0);
    const auto back = openSignal(args[0], args[1], wordsOf(area), 1);
    bench::say("ready");
    for (auto rounds = std::stoull(args[2]); rounds > 0; --rounds) {
        if (!there->await()) return 1;
        back->send();
    }
    bench::hear();
    return 0;
}

BENCH_ROLE(sync_contender) {
    bindToProcessor(1);
    Contended mutex(args[0], args[1], false);
    bench::say("ready");
    bench::hear();
    mutex.lockAndUnlock(std::stoull(args[2]));
    return 0;
}

BENCH_SUITE(namedsync, "named mutex and condition, beside what the system offers") {
    declareUncontended(suite);
    declareContended(suite);
    declarePingPong(suite);
}
