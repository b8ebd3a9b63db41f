// What one whole session leaves in the log, line by line: who looks into a log relies on the texts.
#include <unistd.h>

#include <regex>
#include <sstream>

#include "AgentFixture.h"
#include "FileContent.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {

// The lines of the test's own thread in their order, then those of the agent's threads, sorted.
class SessionLog : public KLT::kltlogger::LogSink {
public:
    void write(const KLT::kltlogger::LogRecord& record) override {
        const bool isOwn = std::this_thread::get_id() == m_thread;
        std::lock_guard lock(m_mutex);
        (isOwn ? m_own : m_others).emplace_back(record.message);
    }
    void comment(const std::string& text) {
        std::lock_guard lock(m_mutex);
        m_own.push_back("\n# " + text);
    }
    std::string text() {
        std::sort(m_others.begin(), m_others.end());
        std::string all;
        for (const auto& line : m_own) all += line + '\n';
        all += "\n# the agent's own threads\n";
        for (const auto& line : m_others) all += line + '\n';
        all = std::regex_replace(all, std::regex(std::to_string(getpid())), "PID");
        all = std::regex_replace(all, std::regex("more in [0-9]+ s"), "more in TIME");
        return std::regex_replace(all, std::regex("0x[0-9a-f]+"), "POINTER");
    }

private:
    const std::thread::id m_thread = std::this_thread::get_id();
    std::mutex m_mutex;
    Texts m_own;
    Texts m_others;
};

VCMessage handshake(MessageTypeEnum type) {
    auto message = control(type);
    message.setSupportedStreams("Basic-Media-");
    message.setChannelVersion("9.8");
    message.setInternalVersion("77");
    message.setClientVersion("client 5");
    return message;
}

void connect(SessionLog& log, AgentSide& side, FakeChannel& channel) {
    log.comment("another agent is active");
    side.machine->otherAgentIsActive = true;
    side.becomesAvailable();
    for (const auto type : {CTL_CONNECT, CTL_CONNECT_READY, CTL_CONNECTED}) {
        channel.deliver(handshake(type));
    }
    side.machine->otherAgentIsActive = false;
    log.comment("first connection");
    side.becomesAvailable();
    channel.deliver(handshake(CTL_CONNECT));
    channel.deliver(handshake(CTL_CONNECT_READY));
    side.becomesAvailable();
}

void openStreams(SessionLog& log, AgentSide& side, FakeChannel& channel) {
    log.comment("streams");
    side.request("CreateStream|Media|500");
    side.request("OpenStream|Media|500");
    channel.deliver(routed("Media", "too early"));
    channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    channel.deliver(aboutStream(CTL_S_CREATE, "Basic", kWrite));
    channel.deliver(aboutStream(CTL_S_CREATE, "Basic", kWrite));
    channel.deliver(aboutStream(CTL_S_CREATE, "Generic", 2));
    channel.deliver(routed("Generic", "makes it"));
    channel.deliver(routed("Generic/", "no name"));
    channel.deliver(routed("Basic", "for a stream that the agent reads"));
    channel.deliver(aboutStream(CTL_S_CREATED, "Nobody", kRead));
    side.machine->segmentsFail = true;
    side.request("CreateStream|upgrade|500");
    side.machine->segmentsFail = false;
}

void sendNonsense(SessionLog& log, AgentSide& side, FakeChannel& channel) {
    log.comment("what is not understood");
    for (const auto type : {CTL_S_CREATE, CTL_S_CREATED, CTL_S_ROUTE, CTL_S_ERROR}) {
        channel.deliver(control(type));
    }
    channel.deliver(aboutStream(CTL_S_ROUTE, "Media", kRead));
    channel.deliver(aboutStream(CTL_S_ERROR, "Media", kRead));
    channel.callObserver([](auto& o) { o.OnVirtualChannelReceiveData(nullptr, 40); });
    channel.deliver(std::string(300, '\xAB'));
    channel.deliver(control(static_cast<MessageTypeEnum>(8)));
    channel.deliver(control(static_cast<MessageTypeEnum>(200)));
    auto unsupported = control(CTL_MESSAGE_TYPE_NOTSUPPORTED);
    unsupported.setUnsupportedMessageType(200);
    channel.deliver(unsupported);
    channel.deliver(control(CTL_NOOP));
    side.request("CreateStream|" + infoOutputName() + "|500");
    side.request("SetLogPath|/dev/null/x");
    side.request("nonsense");
}

void askAndEnd(SessionLog& log, AgentSide& side, FakeChannel& channel) {
    log.comment("questions and events");
    for (const auto* request :
         {"RequestVCProcessId", "RequestNotifyStream", "RequestInvalidStreams",
          "RequestPeerVersion", "RequestEnviromentType", "IsSeamless", "IsMultiSession",
          "GetWindowHandle|1", "SetHVDClientInfo|1|2", "FlushLog"}) {
        side.request(request);
    }
    channel.deliver(control(CTL_LOGFLUSH));
    channel.callObserver([](auto& o) {
        o.OnSessionAvailabilityChange(true);
        o.OnThinClientPlatformChange(4000000000U);
        o.OnChannelBlockedByPolicySetting(true);
        o.OnSessionAvailabilityChange(false);
    });
    log.comment("second connection, of a far side that says nothing of itself");
    side.request("RequestNotifyStream");
    channel.deliver(control(CTL_CONNECTED));
    channel.callObserver([](auto& o) { o.OnVirtualChannelShutdown(); });
    channel.deliver(handshake(CTL_CONNECTED));
    channel.deliver(control(CTL_DISCONNECT));
    channel.deliver(handshake(CTL_CONNECTED));
    log.comment("the end");
    side.agent->stop();
}

void runSession(SessionLog& log) {
    AgentSide side;
    for (const auto part : {connect, openStreams, sendNonsense, askAndEnd}) {
        part(log, side, side.channel);
    }
}

}  // namespace

TEST(AgentLog, AWholeSessionReadsAsItAlwaysDid) {
    const auto log = std::make_shared<SessionLog>();
    const auto before = KLT::kltlogger::setSink(log);
    runSession(*log);
    KLT::kltlogger::setSink(before);
    EXPECT_EQ(log->text(), contentOf(SESSION_LOG));
}
