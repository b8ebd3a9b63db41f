#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "NorvoStreamClient.h"

namespace vcctl {

// The stream client for the subcommands: waits end when the user stops, and failures are
// CommandErrors that say what to do.
class SessionClient {
public:
    explicit SessionClient(NorvoStreamClient::Options options = {})
        : m_client(std::move(options)) {}

    NorvoStreamClient::Client& client() { return m_client; }

    // Notes on standard error if the name is not one of the channel's own.
    std::shared_ptr<NorvoStreamClient::Stream> open(const std::string& name,
                                                    NorvoStreamClient::Direction direction,
                                                    unsigned int capacity);
    // The same for a connection, as the calling or the called end.
    std::shared_ptr<NorvoStreamClient::Connection> connection(
        const std::string& name, bool connects,
        const NorvoStreamClient::ConnectionOptions& options);
    // Waits up to `seconds` for both agents to serve the stream.
    void waitUntilUp(NorvoStreamClient::Stream& stream, double seconds);
    // Waits up to `seconds` for an agent in this session, connected or not.
    void waitForAgent(double seconds);

    // Call repeatedly during an unlimited wait: once `stream` (or without one, the agent) has been
    // away for a moment, says on standard error why nothing comes.
    void noteSilence(NorvoStreamClient::Stream* stream = nullptr);

    void noteSilence(const NorvoStreamClient::Status& status, const std::string& streamName);
    // What a failure means in this session, and what to do.
    std::string explain(const NorvoStreamClient::Status& status, const std::string& streamName);

private:
    NorvoStreamClient::Client m_client;
    std::chrono::steady_clock::time_point m_absentSince = std::chrono::steady_clock::now();
    bool m_noted = false;
};

// Whether waiting longer can help.
bool isTransient(const NorvoStreamClient::Status& status);

// The session namespace of this process, for messages.
std::string sessionText();

// Why no agent answers, as far as can be told, and what to do.
std::string noAgentText();

// The point in time `seconds` from now.
std::chrono::steady_clock::time_point after(double seconds);

// Waits end at least this often, to check for the stop signal.
inline constexpr std::chrono::milliseconds kPollTime{100};

}  // namespace vcctl
