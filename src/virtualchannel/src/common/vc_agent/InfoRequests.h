#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AgentConnection.h"
#include "AgentContext.h"
#include "HvdClientInfoManager.h"
#include "InfoNotifier.h"
#include "StreamService.h"

namespace VirtualChannelAgent {

// Carries out requests of local processes: an operation name and its fields as text
// (MessageParser.h). Any thread. An invalid request does no more harm than a log line.
class InfoRequests {
public:
    using ClientInfo = std::function<std::shared_ptr<HvdClientInfoManager>()>;

    InfoRequests(AgentContext& context, StreamService& streams, InfoNotifier& notifier,
                 AgentConnection& connection, ClientInfo clientInfo)
        : m_context(context),
          m_streams(streams),
          m_notifier(notifier),
          m_connection(connection),
          m_clientInfo(std::move(clientInfo)) {}

    void handle(const std::string& message) NORVO_TAKES_CREATION;

private:
    // Field 0 is the operation's name.
    using Fields = std::vector<std::string>;
    struct Operation;
    static const Operation* find(const Fields& fields);

    void createStream(const Fields& fields);
    void openStream(const Fields& fields);
    void notifyStreams(const Fields& fields) NORVO_TAKES_STREAMS;
    void setClientInfo(const Fields& fields);
    void setLogPath(const Fields& fields);
    void getWindowHandle(const Fields& fields);
    void printMessage(const std::string& caption, const std::string& message);

    AgentContext& m_context;
    StreamService& m_streams;
    InfoNotifier& m_notifier;
    AgentConnection& m_connection;
    const ClientInfo m_clientInfo;
    KLT::kltlogger::LogRepeats m_streamQueries;
    KLT::kltlogger::LogRepeats m_processIds;
};

}  // namespace VirtualChannelAgent
