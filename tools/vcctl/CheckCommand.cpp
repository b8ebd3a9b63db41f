// vcctl check: says what a session needs and has, and what to do about the rest.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>

#include "AgentMark.h"
#include "CommandError.h"
#include "CommandLine.h"
#include "InfoSegments.h"
#include "Namespace.h"
#include "Output.h"
#include "PluginLibrary.h"
#include "PosixSharedMemory.h"
#include "ProcessList.h"
#include "SegmentList.h"
#include "SessionClient.h"
#include "StopSignal.h"

namespace vcctl {

namespace {

constexpr std::array kSeverities{"WARN", "ERROR", "FATAL"};

struct CheckOptions {
    std::string library;
    double wait = 2;
};

class CheckList {
public:
    void has(std::string_view what, std::string_view text) { add("ok", what, text); }
    void lacks(std::string_view what, std::string_view text) {
        add("MISSING", what, text);
        m_isComplete = false;
    }
    static void note(std::string_view what, std::string_view text) { add("", what, text); }
    bool isComplete() const { return m_isComplete; }

private:
    static void add(std::string_view verdict, std::string_view what, std::string_view text) {
        print(fmt::format("{:<8} {:<13} {}\n", verdict, what, text));
        flushOut();
    }

    bool m_isComplete = true;
};

void checkLibrary(CheckList& list, const std::string& path) {
    try {
        loadPlugin(path);
        list.has("library", path.empty() ? ownPluginPath() : path);
    } catch (const CommandError& error) {
        list.lacks("library", error.what());
    }
}

void checkMemory(CheckList& list) {
    const auto room = VDIFrameworkCommon::sharedMemoryRoom();
    if (isSharedMemoryFull()) {
        list.lacks("shared memory", "no room: remove what fills it (on Linux /dev/shm)");
    } else if (room == 0) {
        list.has("shared memory", "the system does not tell how much room there is");
    } else {
        list.has("shared memory", fmt::format("{} MiB free", room >> 20U));
    }
}

std::string described(long process) {
    const std::string program = VDIFrameworkCommon::executableOf(static_cast<pid_t>(process));
    return fmt::format("process {}{}", process, program.empty() ? "" : " (" + program + ')');
}

// The agent that answers here, not the one that is marked as active: that may be another one.
bool checkAgent(CheckList& list, SessionClient& session, double wait) {
    try {
        session.waitForAgent(wait);
    } catch (const CommandError& error) {
        if (error.exitCode() == kInterrupted) throw;
        list.lacks("agent", error.what());
        return false;
    }
    list.has("agent", described(session.client().agentProcessId()));
    return true;
}

std::string peerVersion(NorvoStreamClient::Client& client) {
    constexpr std::chrono::milliseconds kLimit{1000};
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    NorvoStreamClient::Notification notification;
    if (!client.request("RequestPeerVersion", {}, kLimit)) return {};
    while (std::chrono::steady_clock::now() < deadline) {
        StopSignal::throwIfRequested();
        if (client.nextNotification(notification, kPollTime) &&
            notification.name == "ChannelVersion" && !notification.fields.empty())
            return readable(notification.fields[0]);
    }
    return {};
}

void checkFarEnd(CheckList& list, SessionClient& session, double wait) {
    const auto deadline = after(wait);
    auto& client = session.client();
    while (!client.waitUntilConnected(kPollTime)) {
        StopSignal::throwIfRequested();
        if (std::chrono::steady_clock::now() < deadline) continue;
        const auto active = VDIFrameworkCommon::AgentMark::ofThisProcess().holderOf(geteuid());
        return list.lacks(
            "far end",
            active && static_cast<unsigned int>(*active) != client.agentProcessId()
                ? "not connected: the active agent of this session is " + described(*active)
                : "not connected: the other host is missing, or it has no channel yet");
    }
    const std::string version = peerVersion(client);
    list.has("far end", version.empty() ? "connected" : "connected, version " + version);
}

std::string streamNames() {
    std::string names;
    for (const std::string& name : sessionSegments()) {
        if (!VDIFrameworkCommon::isInfoSegment(name)) names += (names.empty() ? "" : ", ") + name;
    }
    return names.empty() ? "none" : readable(names);
}

// The last warnings and errors of this session.
std::deque<std::string> complaintsIn(std::ifstream& log) {
    constexpr std::streamoff kTail = 256 << 10;
    constexpr std::size_t kMost = 3;
    log.seekg(0, std::ios::end);
    log.seekg(std::max<std::streamoff>(0, log.tellg() - kTail));
    const std::string& space = VDIFrameworkCommon::sessionNamespace();
    const std::string session = space.empty() ? " " : " [" + space + "] ";
    std::deque<std::string> lines;
    for (std::string line; std::getline(log, line);) {
        const auto begin = line.substr(0, 100);
        const bool complains =
            std::any_of(kSeverities.begin(), kSeverities.end(), [&](const char* severity) {
                return begin.find(session + severity + ' ') != std::string::npos;
            });
        if (!complains) continue;
        lines.push_back(readable(line));
        if (lines.size() > kMost) lines.pop_front();
    }
    return lines;
}

// Of hosts with this HOME.
void showLog(bool isInNeed) {
    const char* const home = std::getenv("HOME");
    if (!home || !*home)
        return CheckList::note("log",
                               "HOME is not set: hosts with the same environment log nothing");
    const std::string path = std::string(home) + "/Library/Logs/norvouvdi/VirtualChannel.log";
    std::ifstream log(path);
    CheckList::note("log", log ? path : path + " (not there yet)");
    if (!log || !isInNeed) return;
    for (const std::string& line : complaintsIn(log)) CheckList::note("", line);
}

int runCheck(const CheckOptions& options) {
    CheckList list;
    CheckList::note("session", sessionText());
    checkLibrary(list, options.library);
    checkMemory(list);
    if (!hasInfoSegments()) {
        list.lacks("agent", noAgentText());  // a client would make the segments, and leave them
    } else {
        SessionClient session;
        if (checkAgent(list, session, options.wait)) checkFarEnd(list, session, options.wait);
    }
    CheckList::note("streams", streamNames());
    showLog(!list.isComplete());
    return list.isComplete() ? kOk : kFailed;
}

}  // namespace

void addCheckCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<CheckOptions>();
    Command command(app, "check",
                    "Says what this session needs and has, and what to do about the rest");
    addLibraryOption(command, options->library);
    addWaitOption(command, options->wait, "How long to wait for the agent, and for the far end");
    command.footer(
        "Exit code 1 when something is missing; then the last warnings in the log are\n"
        "shown, too.");
    command.run([=, &exitCode] { exitCode = runCheck(*options); });
}

}  // namespace vcctl
