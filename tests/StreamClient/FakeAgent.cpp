#include "FakeAgent.h"

#include <algorithm>

#include "MessageBuilder.h"
#include "VDIClientInfo.h"

using VDIFrameworkCommon::LocalLock;

void useCrewsSegments() {
    VDIFrameworkCommon::VDIClientInfo::getInstance().setClientType(
        VDIFrameworkCommon::VDIClientType::Crews);
}

FakeAgent::FakeAgent(const std::string& clientName, unsigned int processId, bool connected)
    : m_processId(processId), m_connected(connected) {
    useCrewsSegments();
    m_out->Create(clientName + "_Info_VC2STREAM", kCapacity);
    m_in->Open(clientName + "_Info_STREAM2VC", kCapacity);
    m_in->subscribeObserver(this);
}

FakeAgent::~FakeAgent() { m_in->unsubscribeAllObservers(); }

void FakeAgent::notify(const std::vector<std::string>& fields) {
    VDIFrameworkCommon::MessageBuilder text;
    for (const auto& field : fields) text.append(field);
    m_out->WriteData(text.msg().data(), static_cast<unsigned int>(text.msg().size()));
}

void FakeAgent::raise(const std::string& stream, const std::string& localType) {
    LocalLock lock(m_mutex);
    m_up.insert({stream, localType});
}

int FakeAgent::countOf(const std::string& request) const {
    LocalLock lock(m_mutex);
    return static_cast<int>(std::count(m_requests.begin(), m_requests.end(), request));
}

bool FakeAgent::waitFor(const std::string& request, int count) const {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    LocalLock lock(m_mutex);
    while (std::count(m_requests.begin(), m_requests.end(), request) < count) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        m_changed.wait_until(m_mutex, deadline);
    }
    return true;
}

void FakeAgent::onNewMessageReceived(std::string message,
                                     shared_memory::SharedMemoryI* /*source*/) {
    std::set<std::pair<std::string, std::string>> up;
    {
        LocalLock lock(m_mutex);
        m_requests.push_back(message);
        m_changed.notify_all();
        up = m_up;
    }
    if (message == "RequestVCProcessId")
        notify({"VCProcessId", std::to_string(m_processId), m_connected ? "1" : "0"});
    if (message != "RequestNotifyStream") return;
    for (const auto& [stream, type] : up) notify({"StreamUp", stream, type});
}
