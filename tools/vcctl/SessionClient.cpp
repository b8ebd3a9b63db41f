#include "SessionClient.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include "CommandError.h"
#include "SegmentList.h"
#include "StopSignal.h"

namespace vcctl {

using Clock = std::chrono::steady_clock;
using NorvoStreamClient::Direction;
using NorvoStreamClient::Reason;
using NorvoStreamClient::Status;

std::string sessionText() {
    const char* name = std::getenv("NORVO_VDI_NAMESPACE");
    return name && *name ? "session namespace '" + std::string(name) + "'"
                         : "the usual session (NORVO_VDI_NAMESPACE is not set)";
}

std::string noAgentText() {
    const std::string text = "no agent answers in " + sessionText();
    if (!isSharedMemoryFull()) return text + ". Is a host running there? (vcctl host)";
    return text +
           ": no space is left in the shared memory, so that a host cannot answer: remove "
           "what fills it (on Linux /dev/shm)";
}

namespace {

// What a user can do about a stream that cannot be opened.
const char* nextStep(Reason reason) {
    switch (reason) {
        case Reason::InvalidArgument:
            return ": a name is 1 to 64 letters, digits, '-', '_' and '.', a capacity 1 byte to 64 "
                   "MiB";
        case Reason::CapacityMismatch:
            return ": give no more with --size, or end the programs that use it (vcctl streams)";
        case Reason::NoSpace:
            return ": take a smaller --size, or remove what fills the shared memory (on Linux "
                   "/dev/shm)";
        case Reason::NoPermission:
            return ": remove what another user has made under its name (on Linux in /dev/shm)";
        default:
            return "";
    }
}

std::string notOpenedText(const std::string& name, const Status& status,
                          const std::string& size = "") {
    return "cannot open a stream '" + name + "'" + size + ": " + status.text() +
           nextStep(status.reason());
}

CommandError whyNotOpened(const std::string& name, unsigned int capacity, const Status& status) {
    const bool isGiven = capacity != NorvoStreamClient::kDefaultCapacity;
    const std::string size = isGiven ? " of " + std::to_string(capacity) + " bytes" : "";
    return CommandError(notOpenedText(name, status, size),
                        status.reason() == Reason::InvalidArgument ? kUsage : kFailed);
}

// Any other name is valid, too, but more likely a typo.
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

bool isTransient(const Status& status) {
    switch (status.reason()) {
        case Reason::Timeout:
        case Reason::NoAgent:
        case Reason::NotConnected:
        case Reason::NotTakenUp:
            return true;
        default:
            return false;
    }
}

Clock::time_point after(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::shared_ptr<NorvoStreamClient::Stream> SessionClient::open(const std::string& name,
                                                               Direction direction,
                                                               unsigned int capacity) {
    const auto opened = m_client.openStream(name, direction, capacity);
    if (!opened) throw whyNotOpened(name, capacity, opened.status());
    noteUnusualName(name);
    std::shared_ptr<NorvoStreamClient::Stream> stream = opened;
    return stream;
}

std::shared_ptr<NorvoStreamClient::Connection> SessionClient::connection(
    const std::string& name, bool connects, const NorvoStreamClient::ConnectionOptions& options) {
    const auto opened = connects ? m_client.connect(name, options) : m_client.accept(name, options);
    const Reason reason = opened.status().reason();
    // The pair may have been found in use by now; otherwise its user learns that later.
    if (reason == Reason::InUse || reason == Reason::InUseOtherDirection)
        throw CommandError(explain(opened.status(), name));
    if (reason == Reason::InvalidArgument)
        throw CommandError("cannot open a connection '" + name + "' of " +
                               std::to_string(options.capacity) +
                               " bytes: a name is 1 to 59 letters, digits, '-', '_' and '.', a "
                               "capacity 128 bytes to 64 MiB (with --raw: 64 letters, 1 byte)",
                           kUsage);
    if (!opened) throw whyNotOpened(name, options.capacity, opened.status());
    noteUnusualName(name);
    std::shared_ptr<NorvoStreamClient::Connection> connection = opened;
    return connection;
}

std::string SessionClient::explain(const Status& status, const std::string& streamName) {
    if (const Status listening = m_client.status(); !listening)
        return "cannot listen in " + sessionText() + ": " + listening.text() +
               (listening.reason() == Reason::NoSpace
                    ? ": remove what fills the shared memory (on Linux /dev/shm)"
                    : "");
    switch (status.reason()) {
        case Reason::NoAgent:
            return noAgentText();
        case Reason::NotConnected:
            return "the host (process " + std::to_string(m_client.agentProcessId()) +
                   ") runs, but its channel is not connected to a far end";
        case Reason::NotTakenUp:
            return "the far side has not taken up the stream '" + streamName +
                   "': the log of this host or of the far one says why";
        case Reason::InUseOtherDirection:
            return "the stream '" + streamName +
                   "' is in use in the other direction: take another one, or wait until nobody has "
                   "had it open for a minute";
        case Reason::InUse:
            return "another program in " + sessionText() + " uses the stream '" + streamName +
                   "': wait for its end, or take another stream";
        case Reason::Timeout:
            return "the host takes nothing from the stream '" + streamName + "'";
        case Reason::PeerGone:
            return "the host was lost or restarted: what was last written to the stream '" +
                   streamName + "' may be lost";
        // A connection opens its streams on its own, later.
        case Reason::CapacityMismatch:
        case Reason::NoSpace:
        case Reason::NoPermission:
            return notOpenedText(streamName, status);
        default:
            return "stream '" + streamName + "': " + status.text();
    }
}

void SessionClient::waitUntilUp(NorvoStreamClient::Stream& stream, double seconds) {
    const auto deadline = after(seconds);
    for (Status up; !(up = stream.waitUntilUp(kPollTime));) {
        StopSignal::throwIfRequested();
        if (Clock::now() >= deadline || !isTransient(up)) {
            throw CommandError(explain(up, stream.name()));
        }
    }
}

void SessionClient::waitForAgent(double seconds) {
    const auto deadline = after(seconds);
    while (m_client.agentProcessId() == 0) {
        StopSignal::throwIfRequested();
        if (Clock::now() >= deadline) throw CommandError(explain(Reason::NoAgent, ""));
        StopSignal::wait(10);
    }
}

void SessionClient::noteSilence(NorvoStreamClient::Stream* stream) {
    using std::chrono::milliseconds;
    if (stream) return noteSilence(stream->waitUntilUp(milliseconds(0)), stream->name());
    noteSilence(m_client.agentProcessId() == 0 ? Status(Reason::NoAgent) : Status(), "");
}

void SessionClient::noteSilence(const Status& status, const std::string& streamName) {
    if (status || status.reason() == Reason::Timeout) {
        m_absentSince = Clock::now();
        m_noted = false;
    }
    if (m_noted || Clock::now() - m_absentSince < std::chrono::milliseconds(300)) return;
    m_noted = true;
    std::fprintf(stderr, "vcctl: waiting: %s\n", explain(status, streamName).c_str());
}

}  // namespace vcctl
