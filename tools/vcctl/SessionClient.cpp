#include "SessionClient.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include "CommandError.h"
#include "StopSignal.h"

namespace vcctl {

using Clock = std::chrono::steady_clock;
using NorvoStreamClient::Direction;

namespace {

std::string sessionText() {
    const char* name = std::getenv("NORVO_VDI_NAMESPACE");
    return name && *name ? "session namespace '" + std::string(name) + "'"
                         : "the usual session (NORVO_VDI_NAMESPACE is not set)";
}

// Any other name is possible, too, but more likely a slip.
void noteUnusualName(const std::string& name) {
    static constexpr std::string_view usual[] = {"Basic",         "Generic", "GenericUnReliable",
                                                 "LogCollection", "Media",   "StringCipher",
                                                 "upgrade"};
    if (std::find(std::begin(usual), std::end(usual), name) != std::end(usual)) return;
    std::string list;
    for (const std::string_view each : usual) list.append(list.empty() ? "" : ", ").append(each);
    std::fprintf(
        stderr,
        "vcctl: note: '%s' is none of the usual streams (%s); it leads to whoever opens it "
        "by this name at the far end\n",
        name.c_str(), list.c_str());
}

}  // namespace

Clock::time_point after(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::shared_ptr<NorvoStreamClient::Stream> SessionClient::open(const std::string& name,
                                                               Direction direction,
                                                               unsigned int capacity) {
    auto stream = m_client.openStream(name, direction, capacity);
    if (!stream) {
        throw CommandError("cannot open a stream '" + name + "' of " + std::to_string(capacity) +
                               " bytes: a name is 1 to 64 letters, digits, '-', '_' and '.', a "
                               "capacity 1 byte to 64 MiB",
                           kUsage);
    }
    noteUnusualName(name);
    return stream;
}

std::string SessionClient::whyNotUp(const std::string& streamName) {
    if (!m_client.isListening()) {
        return "cannot listen in " + sessionText() +
               ": the log in $HOME/Library/Logs/norvouvdi says why";
    }
    if (m_client.agentProcessId() == 0) {
        return "no agent answers in " + sessionText() + ". Is a host running there? (vcctl host)";
    }
    if (!m_client.isConnected()) {
        return "the host (process " + std::to_string(m_client.agentProcessId()) +
               ") runs, but its channel is not connected to a far end";
    }
    return "the far side has not taken up the stream '" + streamName + "'";
}

void SessionClient::waitUntilUp(NorvoStreamClient::Stream& stream, double seconds) {
    const auto deadline = after(seconds);
    while (!stream.waitUntilUp(kPollTime)) {
        StopSignal::throwIfRequested();
        if (Clock::now() >= deadline) throw CommandError(whyNotUp(stream.name()));
    }
}

void SessionClient::waitForAgent(double seconds) {
    const auto deadline = after(seconds);
    while (m_client.agentProcessId() == 0) {
        StopSignal::throwIfRequested();
        if (Clock::now() >= deadline) throw CommandError(whyNotUp(""));
        StopSignal::wait(10);
    }
}

void SessionClient::noteSilence(const NorvoStreamClient::Stream* stream) {
    const bool present = stream ? stream->isUp() : m_client.agentProcessId() != 0;
    if (present) {
        m_absentSince = Clock::now();
        m_noted = false;
    }
    if (m_noted || Clock::now() - m_absentSince < std::chrono::seconds(1)) return;
    m_noted = true;
    if (isatty(STDERR_FILENO) != 1) return;
    std::fprintf(stderr, "vcctl: waiting: %s\n", whyNotUp(stream ? stream->name() : "").c_str());
}

}  // namespace vcctl
