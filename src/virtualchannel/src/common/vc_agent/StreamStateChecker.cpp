#include "StreamStateChecker.h"

#include "AgentStream.h"
#include "Contained.h"

namespace VirtualChannelAgent {

namespace {
constexpr std::chrono::milliseconds kCheckPeriod{500};
constexpr std::uint64_t kRetryAfterMs = 2999;
}  // namespace

bool StreamStateChecker::start() {
    m_wake.timedWait(0);  // clears an event left from the last connection
    m_running = true;
    return m_thread.start([this] { CheckStreamStatesThread(); });
}

void StreamStateChecker::stop() {
    requestStop();
    m_wake.set();
    m_thread.join();
}

void StreamStateChecker::CheckStreamStatesThread() {
    AGENT_LOG(m_context, Info, "CheckStreamStatesThread started.");
    while (m_running) {
        m_context.environment->wait(m_wake, kCheckPeriod);
        VDIFrameworkCommon::contained("Looking after the streams", [this] {
            askAgain();
            m_context.freeUnusedStreams();
        });
    }
    AGENT_LOG(m_context, Info, "Finishing CheckStreamStatesThread thread/method");
}

void StreamStateChecker::askAgain() {
    const std::uint64_t now = m_context.environment->nowMs();
    for (const auto& stream : m_context.streams()) {
        if (stream->isRunning() || stream->name() == m_context.infoOutputName) continue;
        // Unsigned: if the clock was set back, the difference is huge and the request is due.
        if (now - stream->lastCreateRequestMs <= kRetryAfterMs) continue;
        AGENT_LOG(m_context, Info, "retry to create stream: ", stream->name());
        m_context.SendMessageToChannelAboutStream(CTL_S_CREATE, stream->details());
        stream->lastCreateRequestMs = now;
    }
}

}  // namespace VirtualChannelAgent
