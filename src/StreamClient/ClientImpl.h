#pragma once

#include <atomic>
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

// Joins the parts. Three threads: the INFO output segment's read thread hears the agent, the asker
// sends what the view says is due, and the teller calls the program's callbacks, so that a slow
// callback holds up neither of them, nor the agent and its other clients.
class Client::Impl : public shared_memory::SharedMemoryObserverI {
public:
    explicit Impl(Options options);
    ~Impl() override { close(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // A connection's streams are for one program alone: InUse while another has its end open.
    enum class For { Anyone, OneProgram };
    OpenedStream openStream(const std::string& name, Direction direction, unsigned int capacity,
                            For users = For::Anyone);
    // Of a connection's name.
    static Status checkConnection(const std::string& name, const ConnectionOptions& options);
    Status request(const std::string& operation, const std::vector<std::string>& fields,
                   Clock::time_point deadline);
    Status nextNotification(Notification& notification, Clock::time_point deadline);
    Status status() const;
    const AgentView& view() const { return *m_view; }
    Status close();
    bool isForkedChild() const { return m_process.isForkedChild(); }

    void onNewMessageReceived(std::string message, shared_memory::SharedMemoryI* source) override;

private:
    // A notification, or the new state of the connection.
    using News = std::variant<Notification, bool>;
    using NewsQueue = VDIFrameworkCommon::BoundedQueue<News>;
    static constexpr std::size_t kMostNews = 1024;

    // A change of the connection is not dropped while a notification can go.
    static void add(NewsQueue& queue, News news);
    void startThreads();
    // Opens the segment of the notifications and listens; why that failed otherwise.
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
    // The asker's alone while that runs.
    std::shared_ptr<shared_memory::SharedMemoryI> m_info;
    Clock::time_point m_nextListen{};
    std::atomic<bool> m_listens = false;
    mutable VDIFrameworkCommon::LocalMutex m_startMutex;
    Status m_start NORVO_GUARDED_BY(m_startMutex);  // how setting up ended
    const ForkGuard m_process;
    NewsQueue m_toTell{{kMostNews}};     // for the callbacks
    NewsQueue m_toCollect{{kMostNews}};  // for nextNotification

    VDIFrameworkCommon::LocalMutex m_mutex;
    std::vector<std::weak_ptr<Stream::Impl>> m_streams NORVO_GUARDED_BY(m_mutex);
    std::atomic<bool> m_closed = false;  // set under m_mutex

    VDIFrameworkCommon::LocalMutex m_closeMutex;  // a second close waits for the first
    std::thread m_asker;
    std::thread m_teller;
    // Set while the teller runs: to look at m_teller would race with its join.
    std::atomic<std::thread::id> m_tellerId;
};

}  // namespace NorvoStreamClient
