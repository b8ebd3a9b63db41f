#include "ProcessUtils.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>

#include "ApplicationBundle.h"
#include "LocalMutex.h"
#include "Log.h"
#include "NamedMutex.h"
#include "ProcessIdentity.h"
#include "ProcessLaunch.h"
#include "ProcessMatcher.h"
#include "ScopedLock.h"

namespace VDIFrameworkCommon {

namespace {

using Identities = std::vector<ProcessIdentity::Word>;

// A newly started program may take a moment to show its name. Bounded, because it may also have
// ended.
void waitUntilFound(const std::string& name) {
    constexpr int kRounds = 100;
    for (int round = 0; round < kRounds && processesNamed(name).empty(); ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// Under a lock per bundle, so that only the first of several processes starts it.
bool openBundle(const ApplicationBundle& bundle, const std::vector<std::string>& arguments) {
    if (bundle.executable.empty()) return false;
    std::string name = "LAUNCH_" + bundle.path;
    std::replace(name.begin(), name.end(), '/', '_');
    NamedMutex mutex;
    if (!mutex.create(name.c_str())) return false;
    const ScopedLock lock(mutex);
    if (!lock.owns()) return false;
    if (!processesNamed(bundle.path).empty()) return true;
    if (!launchBundle(bundle, arguments)) return false;
    waitUntilFound(bundle.path);
    return true;
}

bool start(const std::string& location, const std::vector<std::string>& arguments) {
    std::error_code error;
    const std::string path = std::filesystem::canonical(installedPath(location), error);
    if (error) return false;
    return path.ends_with(".app") ? openBundle(readBundle(path), arguments)
                                  : launchDetached(path, arguments);
}

bool startByIdentifier(const std::string& identifier) {
    const ApplicationBundle bundle = findInstalledBundle(identifier);
    return bundle.executable.empty() ? launchByIdentifier(identifier) : openBundle(bundle, {});
}

// One LogRepeats per missing program, as callers retry for ever.
std::shared_ptr<KLT::kltlogger::LogRepeats> failuresOf(const std::string& what) {
    using KLT::kltlogger::LogRepeats;
    constexpr std::size_t kMost = 32;
    struct Failures {
        LocalMutex mutex;
        std::map<std::string, std::shared_ptr<LogRepeats>> byName NORVO_GUARDED_BY(mutex);
    };
    static auto* const failures = new Failures;
    std::map<std::string, std::shared_ptr<LogRepeats>> forgotten;
    LocalLock lock(failures->mutex);
    auto& byName = failures->byName;
    if (byName.size() == kMost && !byName.contains(what)) byName.swap(forgotten);
    auto& found = byName[what];
    if (!found) found = std::make_shared<LogRepeats>();
    auto result = found;
    lock.unlock();
    return result;
}

bool reported(bool started, const std::string& what) {
    const auto failures = failuresOf(what);
    if (started) failures->settled();
    if (!started) NORVO_LOG_REPEATED(*failures, Error, "could not start ", what);
    return started;
}

// The name is looked up again once the identities are known: an ID reused by another program in
// between drops out.
Identities identitiesOf(const std::string& name) {
    Identities identities;
    for (const auto& process : processesNamed(name)) {
        const auto identity = ProcessIdentity::of(process.pid);
        if (process.pid > 1 && process.pid != getpid() && identity) identities.push_back(identity);
    }
    if (identities.empty()) return identities;
    const auto named = processesNamed(name);
    std::erase_if(identities, [&](const auto identity) {
        return std::none_of(named.begin(), named.end(), [&](const auto& process) {
            return process.pid == ProcessIdentity::pid(identity);
        });
    });
    return identities;
}

void signalAll(Identities& processes, int number) {
    std::erase_if(processes, ProcessIdentity::isGone);
    for (const auto process : processes) kill(ProcessIdentity::pid(process), number);
}

// True when they are all gone within a second.
bool endsInTime(const Identities& processes) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (!std::all_of(processes.begin(), processes.end(), ProcessIdentity::isGone)) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace

bool ProcessUtils::createProcess(const std::string& path) {
    const bool isPath = path.find('/') != std::string::npos;
    return reported(isPath ? start(path, {}) : startByIdentifier(path), path);
}

bool ProcessUtils::createProcessAtURL(const std::string& location,
                                      const std::vector<std::string>& arguments) {
    return reported(start(location, arguments), location);
}

bool ProcessUtils::isProcessRunning(const std::string& name) {
    return !processesNamed(name).empty();
}

void ProcessUtils::terminateProcess(const std::string& name) {
    Identities processes = identitiesOf(name);
    signalAll(processes, SIGTERM);
    if (endsInTime(processes)) return;
    signalAll(processes, SIGKILL);
    if (!endsInTime(processes)) NORVO_LOG(Error, "could not end every process of ", name);
}

unsigned int ProcessUtils::getCurrentProcessId() { return static_cast<unsigned int>(getpid()); }

unsigned int ProcessUtils::getParentProcessId() { return static_cast<unsigned int>(getppid()); }

}  // namespace VDIFrameworkCommon
