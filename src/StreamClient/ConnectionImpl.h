#pragma once

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "AgentView.h"
#include "ClientImpl.h"
#include "ConnectionMachine.h"
#include "ForkGuard.h"
#include "LocalMutex.h"
#include "NorvoStreamConnection.h"

namespace NorvoStreamClient {

// A ConnectionMachine between two streams. Two threads: the reader opens the streams and passes
// what it reads to the machine; the writer sends the machine's frames.
class Connection::Impl {
public:
    using Role = ConnectionMachine::Role;

    Impl(std::shared_ptr<Client::Impl> client, std::string name, Role role,
         const ConnectionOptions& options);
    // A connection that could not be opened.
    Impl(std::shared_ptr<Client::Impl> client, std::string name, Status failure);
    ~Impl() { close(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    const std::string& name() const { return m_name; }
    Status status() const;
    Status waitUntilOpen(Clock::time_point deadline);
    Status write(const char* data, std::size_t length, Clock::time_point deadline,
                 std::size_t& accepted);
    Status finish();
    Status flush(Clock::time_point deadline);
    std::uint64_t acknowledged() const;
    Status read(char* buffer, std::size_t size, std::size_t& length, Clock::time_point deadline);
    void close();
    bool isForkedChild() const { return m_process.isForkedChild(); }

    // What Client::connect and Client::accept return.
    static OpenedConnection open(const std::shared_ptr<Client::Impl>& client,
                                 const std::string& name, Role role,
                                 const ConnectionOptions& options);

private:
    static ConnectionMachine::Settings settingsFor(const ConnectionOptions& options);

    // Reader
    void readLoop();
    Status openStreamPair();
    // Whether the stream `name` is inbound here; nothing when no such stream is known yet.
    std::optional<bool> queryDirection();
    std::string inName(bool inbound) const;
    std::string outName(bool inbound) const;
    Status openPair(bool inbound);
    // What it means that openPair() has returned InUse.
    Status classifyInUse(bool inbound, int attempt);
    bool agentHasOtherDirection(bool inbound);
    Status waitUntilUp();
    Status pathStatus();
    void hear(std::string frame, Status path);

    // Writer
    void writeLoop();
    bool waitForFrame(ConnectionMachine::Frame& frame);
    bool send(const std::string& frame);
    // How long the next write or flush may take.
    std::chrono::milliseconds timeToWrite() const;
    bool mayGoOn();

    Status standing() const NORVO_REQUIRES(m_mutex);
    // Wakes the writer if it has something to do before its next wake-up.
    void wakeWriter() NORVO_REQUIRES(m_mutex);
    void wakeProgram() NORVO_REQUIRES(m_mutex);
    // Waits for the next change. False at the deadline.
    bool waitForChange(Clock::time_point deadline) NORVO_REQUIRES(m_mutex);
    void endReading();
    void fail(Status why);

    const std::shared_ptr<Client::Impl> m_client;
    const std::string m_name;
    const Role m_role;
    const ConnectionOptions m_options;
    const ForkGuard m_process;

    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    VDIFrameworkCommon::LocalCondition m_work;  // for the writer
    VDIFrameworkCommon::LocalCondition m_news;  // for the program's threads
    ConnectionMachine m_machine NORVO_GUARDED_BY(m_mutex);
    Status m_path NORVO_GUARDED_BY(m_mutex){Reason::NoAgent};  // what the streams lack
    Status m_failure NORVO_GUARDED_BY(m_mutex);  // of the connection, not the protocol
    bool m_closed NORVO_GUARDED_BY(m_mutex) = false;
    bool m_finished NORVO_GUARDED_BY(m_mutex) = false;
    bool m_paired NORVO_GUARDED_BY(m_mutex) = false;
    Clock::time_point m_writerWakes NORVO_GUARDED_BY(m_mutex){};
    Clock::time_point m_closeDeadline NORVO_GUARDED_BY(m_mutex){};  // deadline of the final frames
    int m_programWaits NORVO_GUARDED_BY(m_mutex) = 0;

    // Set by the reader before m_paired.
    std::shared_ptr<Stream> m_in;
    std::shared_ptr<Stream> m_out;

    VDIFrameworkCommon::LocalMutex m_closeMutex;  // a second close waits for the first
    std::thread m_reader NORVO_GUARDED_BY(m_closeMutex);
    std::thread m_writer NORVO_GUARDED_BY(m_closeMutex);
};

}  // namespace NorvoStreamClient
