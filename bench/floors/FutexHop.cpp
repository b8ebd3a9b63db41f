// A slot guarded by one futex word: the least a sleeping mailbox can cost, and the cost when
// each end spins before it sleeps.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include "CpuRelax.h"
#include "SlotHop.h"

namespace bench {

namespace {

template <int kSpinMicroseconds>
class FutexSignal {
public:
    struct Shared {
        std::atomic<std::uint32_t> full;
        std::atomic<std::uint32_t> waiters;
    };

    FutexSignal(const HopEnd&, Shared& shared) : m_shared(shared) {}

    void await(bool full) {
        if (is(full) || spin(full)) return;
        m_shared.waiters.fetch_add(1);
        while (!is(full)) sleepUnless(full);
        m_shared.waiters.fetch_sub(1);
    }

    void change(bool full) {
        m_shared.full.store(full);
        if (m_shared.waiters.load() != 0)
            syscall(SYS_futex, &m_shared.full, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    }

private:
    bool is(bool full) const {
        return (m_shared.full.load(std::memory_order_acquire) != 0) == full;
    }

    bool spin(bool full) const {
        if constexpr (kSpinMicroseconds == 0) return false;
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::microseconds(kSpinMicroseconds);
        do {
            for (int i = 0; i < 32; ++i) {
                if (is(full)) return true;
                VDIFrameworkCommon::cpuRelax();
            }
        } while (std::chrono::steady_clock::now() < end);
        return false;
    }

    void sleepUnless(bool full) {
        const timespec patience{kHopPatienceMs / 1000, 0};
        if (syscall(SYS_futex, &m_shared.full, FUTEX_WAIT, full ? 0u : 1u, &patience, nullptr, 0) !=
                0 &&
            errno == ETIMEDOUT) {
            throw std::runtime_error("the peer is silent");
        }
    }

    Shared& m_shared;
};

template <int kSpinMicroseconds>
std::unique_ptr<Hop> open(const HopEnd& end) {
    return std::make_unique<SlotHop<FutexSignal<kSpinMicroseconds>>>(end);
}

const HopKindRegistrar parks("futex, parks", open<0>);
const HopKindRegistrar spins("futex, spins", open<20>);

}  // namespace

}  // namespace bench
