#pragma once

#include <unistd.h>

#include <memory>
#include <vector>

namespace NorvoStreamClient {

// Distinguishes a forked child from the process that created the object. Threads do not survive a
// fork, and locks may stay held in the child for ever: it must leave the object alone.
class ForkGuard {
public:
    bool isForkedChild() const { return getpid() != m_maker; }

private:
    const pid_t m_maker = getpid();
};

// In a forked child, keeps the object alive when its owner releases it.
template <class Object>
void leaveToParent(const std::shared_ptr<Object>& object) {
    static auto& kept = *new std::vector<std::shared_ptr<Object>>;
    if (object->isForkedChild()) kept.push_back(object);
}

}  // namespace NorvoStreamClient
