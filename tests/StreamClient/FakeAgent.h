// The agent's INFO side, made of segments: hears the requests of clients and answers as told.
#pragma once

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "LocalMutex.h"
#include "SharedMemoryFactory.h"
#include "SharedMemoryI.h"

// Segments are named after the client type of their process: that of the agent's.
void useCrewsSegments();

class FakeAgent : public shared_memory::SharedMemoryObserverI {
public:
    explicit FakeAgent(const std::string& clientName, unsigned int processId = 1,
                       bool connected = true);
    ~FakeAgent() override;
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    void notify(const std::vector<std::string>& fields);
    // RequestNotifyStream is answered with this stream from now on.
    void raise(const std::string& stream, const std::string& localType);

    int countOf(const std::string& request) const;
    bool waitFor(const std::string& request, int count = 1) const;

    void onNewMessageReceived(std::string message, shared_memory::SharedMemoryI* source) override;

private:
    static constexpr unsigned int kCapacity = 10240;
    static constexpr auto kPatience = std::chrono::seconds(20);

    const unsigned int m_processId;
    const bool m_connected;
    std::shared_ptr<shared_memory::SharedMemoryI> m_out =
        shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Broadcast);
    std::shared_ptr<shared_memory::SharedMemoryI> m_in =
        shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Broadcast);
    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    mutable VDIFrameworkCommon::LocalCondition m_changed;
    std::vector<std::string> m_requests NORVO_GUARDED_BY(m_mutex);
    std::set<std::pair<std::string, std::string>> m_up NORVO_GUARDED_BY(m_mutex);
};
