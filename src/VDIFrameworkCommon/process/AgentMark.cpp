#include "AgentMark.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Log.h"
#include "Namespace.h"
#include "RegularFile.h"
#include "SessionFolder.h"

namespace VDIFrameworkCommon {

namespace {

constexpr mode_t kFileMode = 0644;
constexpr int kOpenFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr int kAttempts = 20;
// /tmp cleaners remove files untouched for days.
constexpr std::chrono::hours kTouchPeriod{1};

std::string fileNameOf(uid_t user) { return namespacedName("agent." + std::to_string(user)); }

std::string textOf(pid_t pid) { return "norvo agent " + std::to_string(pid) + '\n'; }

bool isStillNamed(int directory, const std::string& name, int file) {
    struct stat named;
    struct stat opened;
    return fstatat(directory, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(file, &opened) == 0 && isSameFile(named, opened);
}

struct flock wholeFile(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

// The holder of a write lock, which requires write permission. Querying for a read lock ignores
// read locks, which any user can hold.
std::optional<pid_t> writerOf(int file) {
    struct flock lock = wholeFile(F_RDLCK);
    if (fcntl(file, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return std::nullopt;
    return lock.l_pid > 0 ? lock.l_pid : 0;
}

bool isReadLocked(int file) {
    struct flock lock = wholeFile(F_WRLCK);
    return fcntl(file, F_GETLK, &lock) == 0 && lock.l_type == F_RDLCK;
}

bool lockForWriting(int file) {
    struct flock lock = wholeFile(F_WRLCK);
    return fcntl(file, F_SETLK, &lock) == 0;
}

// A file with several links may be any file of that user, locked for another purpose and linked
// here by somebody: its text decides.
bool isMarkFile(int file, const struct stat& status, pid_t writer) {
    if (status.st_nlink <= 1) return true;
    char text[32] = {};
    const ssize_t length = pread(file, text, sizeof text - 1, 0);
    return length > 0 &&
           (writer == 0 ? std::strncmp(text, "norvo agent ", 12) == 0 : textOf(writer) == text);
}

// `file` must have been opened by the name of the user's mark.
std::optional<pid_t> holderOfFile(int file, uid_t user) {
    struct stat status;
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != user ||
        (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return std::nullopt;
    }
    const auto writer = writerOf(file);
    return writer && isMarkFile(file, status, *writer) ? writer : std::nullopt;
}

enum class Found { MarkFile, Removed, Intruder };

// Judges the file opened by the name of this user's mark; corrects wrong permissions.
Found inspect(int file) {
    struct stat status;
    if (file < 0 || fstat(file, &status) != 0) return Found::Intruder;
    if (status.st_nlink == 0) return Found::Removed;
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || status.st_nlink != 1) {
        return Found::Intruder;
    }
    const bool right = (status.st_mode & 07777) == kFileMode || fchmod(file, kFileMode) == 0;
    return right ? Found::MarkFile : Found::Intruder;
}

// Whether opening the mark's name failed because of what holds it.
bool isRefusedByIntruder(int error) {
    return error == ELOOP || error == EACCES || error == EPERM || error == ENXIO;
}

// For display, and for isMarkFile(). The lock holds without it.
void writeText(int file) {
    const std::string text = textOf(getpid());
    if (ftruncate(file, 0) == 0) {
        [[maybe_unused]] const auto written = pwrite(file, text.data(), text.size(), 0);
    }
}

// Who is marked for the user in `folder`; holderBeside(): in any of the user's folders but
// `except`.
std::optional<pid_t> holderIn(const std::string& folder, uid_t user) {
    const FileDescriptor directory = openSessionFolder(folder, user);
    if (!directory) return std::nullopt;
    const FileDescriptor file(
        openat(directory.get(), fileNameOf(user).c_str(), O_RDONLY | kOpenFlags));
    return file ? holderOfFile(file.get(), user) : std::nullopt;
}

std::optional<pid_t> holderBeside(const std::string& except, uid_t user) {
    for (const auto& folder : sessionFolders(user)) {
        if (folder == except) continue;
        if (const auto holder = holderIn(folder, user)) return holder;
    }
    return std::nullopt;
}

// What keeps a mark out of a folder: whatever holds its name, or the folder itself.
std::string obstacleIn(const std::string& folder, int error) {
    const std::string path = folder + '/' + fileNameOf(geteuid());
    struct stat status {};
    const bool named = lstat(path.c_str(), &status) == 0 && status.st_uid != geteuid();
    return (named ? path : folder) + " (" + describeFile(AT_FDCWD, named ? path : folder) +
           "): " + std::strerror(error);
}

}  // namespace

AgentMark& AgentMark::ofThisProcess() {
    static AgentMark* const mark = new AgentMark;
    return *mark;
}

// The lock is held across a fork, so that it is free in the child.
AgentMark::AgentMark() {
    pthread_atfork([]() NORVO_NO_THREAD_SAFETY_ANALYSIS { ofThisProcess().m_mutex.lock(); },
                   []() NORVO_NO_THREAD_SAFETY_ANALYSIS { ofThisProcess().m_mutex.unlock(); },
                   []() NORVO_NO_THREAD_SAFETY_ANALYSIS { ofThisProcess().m_mutex.unlock(); });
}

std::string AgentMark::pathOf(uid_t user) {
    return std::string(kCommonFolder) + '/' + fileNameOf(user);
}

bool AgentMark::claim() {
    LocalLock lock(m_mutex);
    const Outcome outcome = holds() ? renew() : claimLocked();
    lock.unlock();
    log(outcome);
    return outcome.marked;
}

bool AgentMark::isClaimed() {
    LocalLock lock(m_mutex);
    const Outcome outcome = holds() ? renew() : Outcome{};
    lock.unlock();
    log(outcome);
    return outcome.marked;
}

void AgentMark::log(const Outcome& outcome) {
    if (outcome.renewed) {
        NORVO_LOG(Notice, "The active agent's record had been removed: ",
                  outcome.marked ? "made anew" : "lost");
    }
    if (!outcome.inTheWay.empty()) {
        NORVO_LOG(Error,
                  outcome.marked ? "Marked the active agent elsewhere, because of "
                                 : "Cannot mark the active agent, because of ",
                  outcome.inTheWay);
    }
}

void AgentMark::release() {
    LocalLock lock(m_mutex);
    if (holds()) removeFile();
}

// Safe under the lock: the next process to lock the file sees that it has lost its name.
void AgentMark::removeFile() {
    const FileDescriptor directory = openSessionFolder(m_folder, geteuid());
    const std::string name = fileNameOf(geteuid());
    if (directory && isStillNamed(directory.get(), name, m_file.get())) {
        unlinkat(directory.get(), name.c_str(), 0);
    }
    m_file.reset();
}

std::optional<pid_t> AgentMark::holderOf(uid_t user) {
    LocalLock lock(m_mutex);
    return holds() && user == geteuid() ? m_claimant : holderBeside({}, user);
}

bool AgentMark::holds() {
    if (m_file && m_claimant != getpid()) m_file.reset();
    return bool(m_file);
}

AgentMark::Outcome AgentMark::claimLocked() {
    Outcome outcome;
    for (const auto& folder : sessionFolders(geteuid())) {
        std::string inTheWay;
        const Attempt result = claimIn(folder, inTheWay);
        if (!inTheWay.empty())
            outcome.inTheWay += (outcome.inTheWay.empty() ? "" : "; ") + inTheWay;
        outcome.marked = result == Attempt::Claimed;
        if (outcome.marked) break;
        if (result == Attempt::HeldByOther) return {};
    }
    return outcome;
}

// Two processes that claim in different folders at once see each other afterwards, and both give
// up: never are two marked.
AgentMark::Attempt AgentMark::claimIn(const std::string& folder, std::string& inTheWay) {
    if (holderBeside(folder, geteuid())) return Attempt::HeldByOther;
    const FileDescriptor directory = makeSessionFolder(folder, geteuid());
    const std::string name = fileNameOf(geteuid());
    Attempt result = directory ? Attempt::Again : Attempt::Failed;
    for (int i = 0; i < kAttempts && result == Attempt::Again; ++i) {
        result = attempt(directory.get(), name);
    }
    if (result == Attempt::Claimed) {
        m_folder = folder;
        if (!holderBeside(folder, geteuid())) return result;
        removeFile();
        return Attempt::HeldByOther;
    }
    const bool impossible = result != Attempt::HeldByOther && errno != ENOENT;
    if (impossible) inTheWay = obstacleIn(folder, errno);
    return result;
}

AgentMark::Attempt AgentMark::attempt(int directory, const std::string& name) {
    FileDescriptor file(openat(directory, name.c_str(), O_RDWR | O_CREAT | kOpenFlags, kFileMode));
    if (file && holderOfFile(file.get(), geteuid())) return Attempt::HeldByOther;
    if (!file && !isRefusedByIntruder(errno)) return Attempt::Failed;
    const Found found = inspect(file.get());
    if (found == Found::Removed) return Attempt::Again;
    if (found == Found::Intruder) return clearAway(directory, name);
    if (!lockForWriting(file.get())) return whyNotLocked(directory, name, file.get());
    if (!isStillNamed(directory, name, file.get())) return Attempt::Again;
    writeText(file.get());
    m_file = std::move(file);
    m_claimant = getpid();
    m_touched = std::chrono::steady_clock::now();
    return Attempt::Claimed;
}

// Two processes that clear it away at once may remove each other's new file: renew() notices. A
// folder under the name is never ours, and stays. If nothing has the name, the containing folder
// must be writable.
AgentMark::Attempt AgentMark::clearAway(int directory, const std::string& name) {
    struct stat status {};
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return faccessat(directory, ".", W_OK, AT_EACCESS) == 0 ? Attempt::Again : Attempt::Failed;
    }
    const bool cleared = unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT;
    return cleared ? Attempt::Again : Attempt::Failed;
}

// A file locked for reading, which no process of this user does, is removed so that a new one can
// be made.
AgentMark::Attempt AgentMark::whyNotLocked(int directory, const std::string& name, int file) {
    if (errno != EAGAIN && errno != EACCES) return Attempt::Failed;
    if (holderOfFile(file, geteuid())) return Attempt::HeldByOther;
    const bool inTheWay = isReadLocked(file) && isStillNamed(directory, name, file);
    return inTheWay ? clearAway(directory, name) : Attempt::Again;
}

AgentMark::Outcome AgentMark::renew() {
    Outcome outcome;
    outcome.marked = true;
    const FileDescriptor directory = openSessionFolder(m_folder, geteuid());
    if (!directory && errno != ENOENT) return outcome;
    if (!directory || !isStillNamed(directory.get(), fileNameOf(geteuid()), m_file.get())) {
        const FileDescriptor old = std::move(m_file);
        outcome = claimLocked();
        outcome.renewed = true;
        return outcome;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - m_touched > kTouchPeriod) {
        futimens(m_file.get(), nullptr);
        m_touched = now;
    }
    return outcome;
}

}  // namespace VDIFrameworkCommon
