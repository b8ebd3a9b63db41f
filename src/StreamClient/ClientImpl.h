#pragma once

#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AgentView.h"
#include "NorvoStreamClient.h"
#include "RequestWriter.h"
#include "SharedMemoryI.h"

namespace NorvoStreamClient {

// Joins the parts: the INFO output segment is heard on its read thread, and one thread asks what
// the view says is due.
class Client::Impl : public SharedMemoryObserverI {
public:
    explicit Impl(Options options);
    ~Impl() override { close(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::shared_ptr<Stream> openStream(const std::string& name, Direction direction,
                                       unsigned int capacity);
    bool request(const std::string& operation, const std::vector<std::string>& fields,
                 Clock::time_point deadline);
    bool nextNotification(Notification& notification, Clock::time_point deadline);
    const AgentView& view() const { return *m_view; }
    void close();

    void onNewMessageReceived(std::string message, SharedMemoryI* source) override;

private:
    void askLoop();
    void queue(Notification notification);
    void tellConnection(bool connected) const;

    const Options m_options;
    const std::shared_ptr<AgentView> m_view;
    RequestWriter m_requests;
    std::shared_ptr<SharedMemoryI> m_info;

    VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_changed;
    std::deque<Notification> m_waiting NORVO_GUARDED_BY(m_mutex);
    std::vector<std::weak_ptr<Stream::Impl>> m_streams NORVO_GUARDED_BY(m_mutex);
    bool m_closed NORVO_GUARDED_BY(m_mutex) = false;

    VDIFrameworkCommon::LocalMutex m_closeMutex;  // a second close waits for the first
    std::thread m_asker;
};

}  // namespace NorvoStreamClient
