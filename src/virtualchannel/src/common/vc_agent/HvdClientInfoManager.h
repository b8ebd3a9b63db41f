#pragma once

#include <atomic>

namespace VirtualChannelAgent {

// What local processes last reported about the client on the hosted desktop: two numbers, opaque to
// the agent. Thread-safe; the two are not read atomically as a pair.
class HvdClientInfoManager {
public:
    void setInfo(unsigned int first, unsigned int second) {
        m_first = first;
        m_second = second;
    }
    unsigned int first() const { return m_first; }
    unsigned int second() const { return m_second; }

private:
    std::atomic<unsigned int> m_first{0};
    std::atomic<unsigned int> m_second{0};
};

}  // namespace VirtualChannelAgent
