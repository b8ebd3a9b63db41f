#include "KRANRunner.h"

#include <fcntl.h>

#include <atomic>
#include <exception>
#include <optional>
#include <thread>
#include <vector>

#include "ApplicationBundle.h"
#include "Contained.h"
#include "Event.h"
#include "FileUtils.h"
#include "LocalMutex.h"
#include "Log.h"
#include "NamedMutex.h"
#include "ProcessUtils.h"
#include "ProcessWatch.h"
#include "RegularFile.h"
#include "ScopedLock.h"
#include "VDIClientInfo.h"
#include "VDIRunnerCounter.h"

namespace NorvoVirtualChannel::tc {

using VDIFrameworkCommon::contained;
using VDIFrameworkCommon::FileUtils;
using VDIFrameworkCommon::LocalLock;
using VDIFrameworkCommon::ProcessUtils;
using VDIFrameworkCommon::VDIClientInfo;
using VDIFrameworkCommon::VDIRunnerCounter;
namespace VDIClientType = VDIFrameworkCommon::VDIClientType;

namespace {

constexpr long kRoundMilliseconds = 2000;

struct Runner {
    VDIFrameworkCommon::LocalMutex mutex;
    std::atomic<bool> running = false;  // written under the mutex
    std::thread thread NORVO_GUARDED_BY(mutex);
    VDIFrameworkCommon::Event stop{true};
};

// Never destroyed: the thread may run until the process exits.
Runner& runner() {
    static auto* const instance = new Runner;
    return *instance;
}

const char* launchMutexName() {
    return VDIClientInfo::getInstance().getClientType() == VDIClientType::Meetings
               ? kStartMeetingsMutex
               : kStartCrewsMutex;
}

// Empty for a client type without a companion application.
std::string applicationIdentifier() {
    switch (VDIClientInfo::getInstance().getClientType()) {
        case VDIClientType::Crews:
            return kLauncherIdentifier;
        case VDIClientType::Meetings:
            return kMeetingsIdentifier;
        default:
            return {};
    }
}

void launchLauncher() {
    std::vector<std::string> arguments;
    const std::string version = VDIClientInfo::getInstance().getPeerClientVersion();
    if (!version.empty()) arguments = {kLauncherArgument, version};
    ProcessUtils::createProcessAtURL(kLauncherBundle, arguments);
}

void launch() {
    switch (VDIClientInfo::getInstance().getClientType()) {
        case VDIClientType::Crews:
            launchLauncher();
            break;
        case VDIClientType::Meetings:
            ProcessUtils::createProcess(kMeetingsIdentifier);
            break;
        default:
            break;
    }
}

// False when a launch could only fail.
bool isInstalled() {
    return VDIClientInfo::getInstance().getClientType() != VDIClientType::Crews ||
           FileUtils::fileExists(VDIFrameworkCommon::installedPath(kLauncherBundle));
}

// State that the runner's thread keeps between rounds.
class Companion {
public:
    Companion() {
        m_launchMutex.create(launchMutexName());
        m_launchMutex.unlock();  // in case a dead process left it locked
    }

    bool isRunning() {
        const std::string identifier = applicationIdentifier();
        return !identifier.empty() && m_watch.isRunning(identifier);
    }

    // Relaunches it if it has ended. To search all processes costs most of what an idle session
    // does: a program that is not installed, and was not running before, is not searched for.
    void lookAfter() {
        if (!m_watch.hasFound() && !isInstalled() && !isMarkedToStop()) return;
        if (!isRunning()) relaunchUnlessMarked();
    }

    // Anybody can put a file there, so check its owner.
    bool isMarkedToStop() {
        if (!FileUtils::fileExists(m_marker)) return false;
        if (FileUtils::isOwnFile(m_marker)) return true;
        NORVO_LOG_REPEATED(m_ignored, Warning, m_marker, " is ignored: it is a ",
                           VDIFrameworkCommon::describeFile(AT_FDCWD, m_marker));
        return false;
    }

private:
    void relaunchUnlessMarked() {
        if (isMarkedToStop()) {
            NORVO_LOG(Trace, "thinclient stopped running, but ", m_marker,
                      " file exists, so we won't restart it");
            return;
        }
        // Anew: its object may have been removed or truncated since.
        m_launchMutex.create(launchMutexName());
        const VDIFrameworkCommon::ScopedLock lock(m_launchMutex);
        launch();
    }

    const std::string m_marker = FileUtils::markerPath(kMarkerDirectory, kStopMarker);
    VDIFrameworkCommon::NamedMutex m_launchMutex;
    VDIFrameworkCommon::ProcessWatch m_watch;
    KLT::kltlogger::LogRepeats m_ignored;
};

void launchUnlessRunning(Companion& companion) {
    if (companion.isMarkedToStop() || companion.isRunning()) return;
    if (!isInstalled()) {  // nor is it on most machines
        NORVO_LOG(Info, "The companion application is not installed: ", kLauncherBundle);
        return;
    }
    NORVO_LOG(Trace, "run thin client.");
    launch();
}

void stopThinclient() {
    NORVO_LOG(Trace, "kill thinclient processes");
    const std::string identifier = applicationIdentifier();
    if (!identifier.empty()) ProcessUtils::terminateProcess(identifier);
}

}  // namespace

void runKRANThread() {
    NORVO_LOG(Trace, "KRAN runner thread start.");
    std::optional<Companion> companion;
    contained("Launching the thin client", [&] { launchUnlessRunning(companion.emplace()); });
    while (runner().running) {
        runner().stop.timedWait(kRoundMilliseconds);
        contained("Looking after the thin client", [&] {
            if (!runner().running) return;
            if (!companion) companion.emplace();  // there was no memory for it
            companion->lookAfter();
        });
    }
    contained("Ending the thin client", stopThinclient);
    NORVO_LOG(Trace, "KRAN runner thread stopped.");
}

void startKRAN() {
    NORVO_LOG(Trace, "Requesting KRAN runner thread to start.");
    Runner& state = runner();
    LocalLock lock(state.mutex);
    if (state.running) {
        NORVO_LOG(Trace, "runKRANThread already running, just return.");
        return;
    }
    state.running = true;
    try {
        state.thread = std::thread([] { contained("The runner thread", runKRANThread); });
    } catch (const std::exception& error) {
        state.running = false;
        NORVO_LOG(Error, "cannot start the runner thread: ", error.what());
    }
}

void stopKRAN() {
    NORVO_LOG(Trace, "Requesting KRAN runner thread to stop.");
    Runner& state = runner();
    state.stop.set();
    LocalLock lock(state.mutex);
    if (!state.running) {
        NORVO_LOG(Trace, "No runKRANThread is running");
        return;
    }
    state.running = false;
    // The thread may have consumed the first signal before the flag was cleared.
    state.stop.set();
    state.thread.join();
    NORVO_LOG(Trace, "KRAN runner thread stopped.");
}

void addRunner() { VDIRunnerCounter::getInstance().addRunner(ProcessUtils::getCurrentProcessId()); }

void removeRunner() {
    contained("Counting the runner out", [] {
        VDIRunnerCounter::getInstance().removeRunner(ProcessUtils::getCurrentProcessId());
    });
}

void cleanupSharedMemory() { static_cast<void>(VDIRunnerCounter::getInstance().hasRunner()); }

}  // namespace NorvoVirtualChannel::tc
