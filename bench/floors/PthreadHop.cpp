// A slot guarded by a process-shared POSIX mutex and condition.
#include <pthread.h>
#include <time.h>

#include "SlotHop.h"

namespace bench {

namespace {

class PthreadSignal {
public:
    struct Shared {
        pthread_mutex_t mutex;
        pthread_cond_t condition;
        bool full;
    };

    PthreadSignal(const HopEnd& end, Shared& shared) : m_shared(shared) {
        if (end.creates) initialise();
    }

    void await(bool full) {
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += kHopPatienceMs / 1000;
        int failed = 0;
        pthread_mutex_lock(&m_shared.mutex);
        while (m_shared.full != full && failed == 0)
            failed = pthread_cond_timedwait(&m_shared.condition, &m_shared.mutex, &deadline);
        pthread_mutex_unlock(&m_shared.mutex);
        if (failed) throw std::runtime_error("the peer is silent");
    }

    void change(bool full) {
        pthread_mutex_lock(&m_shared.mutex);
        m_shared.full = full;
        pthread_mutex_unlock(&m_shared.mutex);
        pthread_cond_signal(&m_shared.condition);
    }

private:
    void initialise() {
        pthread_mutexattr_t mutexKind;
        pthread_mutexattr_init(&mutexKind);
        pthread_mutexattr_setpshared(&mutexKind, PTHREAD_PROCESS_SHARED);
        pthread_mutex_init(&m_shared.mutex, &mutexKind);
        pthread_mutexattr_destroy(&mutexKind);
        pthread_condattr_t conditionKind;
        pthread_condattr_init(&conditionKind);
        pthread_condattr_setpshared(&conditionKind, PTHREAD_PROCESS_SHARED);
        pthread_cond_init(&m_shared.condition, &conditionKind);
        pthread_condattr_destroy(&conditionKind);
    }

    Shared& m_shared;
};

const HopKindRegistrar entry("pthread", [](const HopEnd& end) -> std::unique_ptr<Hop> {
    return std::make_unique<SlotHop<PthreadSignal>>(end);
});

}  // namespace

}  // namespace bench
