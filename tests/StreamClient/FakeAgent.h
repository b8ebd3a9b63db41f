// The agent's INFO side, built on segments: receives clients' requests and sends the set answers.
#pragma once

#include "InfoSegments.h"
#include "MessageBuilder.h"
#include "SegmentSupport.h"
#include "VDIClientInfo.h"

// Segment names depend on the process's client type: use the agent's.
inline void useCrewsSegments() {
    VDIFrameworkCommon::VDIClientInfo::getInstance().setClientType(
        VDIFrameworkCommon::VDIClientType::Crews);
}

class FakeAgent : public shared_memory::SharedMemoryObserverI {
public:
    explicit FakeAgent(const std::string& clientName, unsigned int processId = 1,
                       bool connected = true)
        : m_processId(processId), m_connected(connected) {
        using namespace VDIFrameworkCommon;
        useCrewsSegments();
        m_out->Create(infoNotificationsName(clientName), kInfoSegmentSize);
        m_in->Open(infoRequestsName(clientName), kInfoSegmentSize);
        m_in->subscribeObserver(this);
    }
    ~FakeAgent() override { m_in->unsubscribeAllObservers(); }
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    void notify(const std::vector<std::string>& fields) {
        VDIFrameworkCommon::MessageBuilder text;
        for (const auto& field : fields) text.append(field);
        m_out->WriteData(text.msg().data(), static_cast<unsigned int>(text.msg().size()));
    }
    // RequestNotifyStream is answered with this stream from now on.
    void raise(const std::string& stream, const std::string& localType) {
        std::lock_guard lock(m_mutex);
        m_up.insert({stream, localType});
    }
    int countOf(const std::string& request) const {
        std::lock_guard lock(m_mutex);
        return static_cast<int>(std::count(m_requests.begin(), m_requests.end(), request));
    }
    bool waitFor(const std::string& request, int count = 1) const {
        return testsupport::eventually([&] { return countOf(request) >= count; });
    }

    void onNewMessageReceived(std::string message,
                              shared_memory::SharedMemoryI* /*source*/) override {
        std::unique_lock lock(m_mutex);
        m_requests.push_back(message);
        const auto up = m_up;
        lock.unlock();
        if (message == "RequestVCProcessId")
            notify({"VCProcessId", std::to_string(m_processId), m_connected ? "1" : "0"});
        if (!message.starts_with("RequestNotifyStream")) return;
        for (const auto& [stream, type] : up) notify({"StreamUp", stream, type});
    }

private:
    const unsigned int m_processId;
    const bool m_connected;
    std::shared_ptr<shared_memory::SharedMemoryI> m_out = segmenttest::broadcast();
    std::shared_ptr<shared_memory::SharedMemoryI> m_in = segmenttest::broadcast();
    mutable std::mutex m_mutex;
    std::vector<std::string> m_requests;
    std::set<std::pair<std::string, std::string>> m_up;
};
