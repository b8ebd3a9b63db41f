#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "AgentView.h"
#include "BoundedQueue.h"
#include "ForkGuard.h"
#include "NorvoStreamClient.h"
#include "RequestWriter.h"
#include "SharedMemoryI.h"

namespace NorvoStreamClient {

// Ties the client's parts together. Three threads: the INFO output segment's read thread receives
// notifications, the request thread (m_requestThread) sends what the view says is due, and the
// callback thread (m_callbackThread) calls the program's callbacks. So a slow callback delays
// neither the other two, nor the agent and its other clients.
class Client::Impl : public shared_memory::SharedMemoryObserverI {
public:
    explicit Impl(Options options);
    ~Impl() override { close(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // A connection's streams are for one program only: InUse while another has the same end open.
    enum class For { Anyone, OneProgram };
    OpenedStream openStream(const std::string& name, Direction direction, unsigned int capacity,
                            For users = For::Anyone);
    // Whether a connection's name and options are valid.
    static Status checkConnection(const std::string& name, const ConnectionOptions& options);
    // Gives up once `mayGoOn` returns false.
    Status request(
        const std::string& operation, const std::vector<std::string>& fields,
        Clock::time_point deadline, const std::function<bool()>& mayGoOn = [] { return true; });
    Status nextNotification(Notification& notification, Clock::time_point deadline);
    Status status() const;
    const AgentView& view() const { return *m_view; }
    AgentView& view() { return *m_view; }
    Status close();
    bool isForkedChild() const { return m_process.isForkedChild(); }

    void onNewMessageReceived(std::string message, shared_memory::SharedMemoryI* source) override;

private:
    // A notification, or the new state of the connection.
    using News = std::variant<Notification, bool>;
    using NewsQueue = VDIFrameworkCommon::BoundedQueue<News>;
    static constexpr std::size_t kMostNews = 1024;

    // Drops a connection change only when no notification is left to drop.
    static void add(NewsQueue& queue, News news);
    void startThreads();
    void giveUp(const Status& why);
    // Opens the notification segment and listens; returns why that failed.
    Status listen();
    void listenAfterAll();
    void askLoop();
    void ask();
    void tellLoop();
    void tell(const News& news) const;
    void join();
    std::shared_ptr<Stream::Impl> makeStream(const std::string& name, Direction direction,
                                             unsigned int capacity, For users);
    void announce(bool connected);

    const Options m_options;
    const std::shared_ptr<AgentView> m_view;
    RequestWriter m_requests;
    // Used only by the request thread while it runs.
    std::shared_ptr<shared_memory::SharedMemoryI> m_info;
    Clock::time_point m_nextListen{};
    std::atomic<bool> m_listens = false;
    mutable VDIFrameworkCommon::LocalMutex m_startMutex;
    Status m_start NORVO_GUARDED_BY(m_startMutex);  // result of the set-up
    const ForkGuard m_process;
    NewsQueue m_callbackQueue{{kMostNews}};      // for the callbacks
    NewsQueue m_notificationQueue{{kMostNews}};  // for nextNotification

    VDIFrameworkCommon::LocalMutex m_mutex;
    std::vector<std::weak_ptr<Stream::Impl>> m_streams NORVO_GUARDED_BY(m_mutex);
    std::atomic<bool> m_closed = false;  // set under m_mutex

    VDIFrameworkCommon::LocalMutex m_closeMutex;  // a second close waits for the first
    std::thread m_requestThread;
    std::thread m_callbackThread;
    // Set while the callback thread runs: reading m_callbackThread would race with its join.
    std::atomic<std::thread::id> m_tellerId;
};

}  // namespace NorvoStreamClient
