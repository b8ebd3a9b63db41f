#include "InfoRequests.h"

#include <algorithm>
#include <iterator>

#include "Conversions.h"
#include "FileUtils.h"
#include "InfoSegments.h"
#include "MessageParser.h"

namespace VirtualChannelAgent {

using VDIFrameworkCommon::FileUtils;
using VDIFrameworkCommon::toUnsignedInt;

namespace {

// A parsed request may need more than 32 times its memory.
constexpr std::size_t kLongestRequest = VDIFrameworkCommon::kInfoSegmentSize;

}  // namespace

// One request: its name, its minimum number of fields, and its handler.
struct InfoRequests::Operation {
    const char* name;
    std::size_t fields;
    void (*run)(InfoRequests& self, const Fields& fields);
};

const InfoRequests::Operation* InfoRequests::find(const Fields& fields) {
    using Self = InfoRequests;
    static constexpr Operation kOperations[] = {
        {"CreateStream", 2, [](Self& self, const Fields& f) { self.createStream(f); }},
        {"OpenStream", 2, [](Self& self, const Fields& f) { self.openStream(f); }},
        {"SetHVDClientInfo", 2, [](Self& self, const Fields& f) { self.setClientInfo(f); }},
        {"SetLogPath", 1, [](Self& self, const Fields& f) { self.setLogPath(f); }},
        {"GetWindowHandle", 1, [](Self& self, const Fields& f) { self.getWindowHandle(f); }},
        {"RequestVCProcessId", 0,
         [](Self& self, const Fields&) {
             self.m_notifier.notifyCurrentProcessId(self.m_context.connected);
         }},
        {"FlushLog", 0, [](Self& self, const Fields&) { self.m_connection.sendFlushLogs(); }},
        {"RequestNotifyStream", 0, [](Self& self, const Fields& f) { self.notifyStreams(f); }},
        {"RequestInvalidStreams", 0,
         [](Self& self, const Fields&) { self.m_notifier.notifyInvalidStreams(); }},
        {"RequestPeerVersion", 0,
         [](Self& self, const Fields&) { self.m_notifier.notifyChannelVersion(); }},
        {"RequestEnviromentType", 0,
         [](Self& self, const Fields&) { self.m_notifier.notifyEnviromentType(); }},
        {"IsSeamless", 0,
         [](Self& self, const Fields&) { self.m_notifier.notifyIsSeamlessMode(); }},
        {"IsMultiSession", 0,
         [](Self& self, const Fields&) { self.m_notifier.notifyIsMultiSession(); }},
    };
    const auto found = std::find_if(std::begin(kOperations), std::end(kOperations),
                                    [&](const Operation& each) { return fields[0] == each.name; });
    const bool complete = found != std::end(kOperations) && fields.size() > found->fields;
    return complete ? found : nullptr;
}

void InfoRequests::handle(const std::string& message) {
    if (m_context.stopping) return;  // CTL_DISCONNECT must be the last message to the peer
    printMessage("onNewMessageReceived: ", message);
    const Fields fields = message.size() > kLongestRequest
                              ? Fields()
                              : VDIFrameworkCommon::MessageParser(message).parseMsg();
    const Operation* const operation = fields.empty() ? nullptr : find(fields);
    if (operation) {
        operation->run(*this, fields);
    } else {
        AGENT_LOG(m_context, Warning, "Wrong message: ", shown(message));
    }
}

void InfoRequests::createStream(const Fields& fields) {
    m_streams.CreateStream(fields[1], toUnsignedInt(fields[2]), Requester::LocalProcess);
}

void InfoRequests::openStream(const Fields& fields) {
    m_streams.OpenStream(fields[1], toUnsignedInt(fields[2]), Requester::LocalProcess);
}

void InfoRequests::notifyStreams(const Fields& fields) {
    Fields names(fields.begin() + 1, fields.end());
    std::erase(names, "");
    m_notifier.notifyRunningStreams(names);
}

void InfoRequests::setClientInfo(const Fields& fields) {
    m_clientInfo()->setInfo(toUnsignedInt(fields[1]), toUnsignedInt(fields[2]));
}

void InfoRequests::getWindowHandle(const Fields& fields) {
    m_notifier.notifyGetWindowHandle(VDIFrameworkCommon::toPointer(fields[1]));
}

void InfoRequests::setLogPath(const Fields& fields) {
    std::string directory = fields[1];
    const std::string separator = FileUtils::FileSeparator();
    if (!VDIFrameworkCommon::endsWith(directory, separator)) directory += separator;
    // A relative path would depend on where the host was started.
    const bool isUsable = fields[1].starts_with('/') && FileUtils::createDirectory(directory) &&
                          VirtualChannelLogger_init(directory + "VirtualChannel.log");
    if (!isUsable)
        AGENT_LOG(m_context, Warning, "Cannot use this directory for the log: ", shown(fields[1]));
}

// Processes that wait for a change poll with these two requests.
void InfoRequests::printMessage(const std::string& caption, const std::string& message) {
    if (message == "RequestNotifyStream" || message.starts_with("RequestNotifyStream|")) {
        AGENT_LOG_REPEATED(m_context, m_streamQueries, Info, caption, shown(message));
    } else if (message == "RequestVCProcessId") {
        AGENT_LOG_REPEATED(m_context, m_processIds, Info, caption, message);
    } else {
        AGENT_LOG(m_context, Info, caption, shown(message));
    }
}

}  // namespace VirtualChannelAgent
