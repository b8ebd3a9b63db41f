#include "AgentMark.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Log.h"
#include "Namespace.h"

NORVO_LOG_SOURCE("src/VDIFrameworkCommon/AgentMark")

namespace VDIFrameworkCommon {

namespace {

constexpr char kDirectory[] = "/tmp/norvo";
constexpr mode_t kDirectoryMode = S_ISVTX | 0777;
constexpr mode_t kFileMode = 0644;
constexpr int kOpenFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr int kAttempts = 20;
// Cleaners of /tmp take files that nobody touched for days.
constexpr std::chrono::hours kTouchPeriod{1};

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

// -1 when it is not there, or when others than root and its owner could exchange files in it.
int openDirectory() {
    Descriptor directory(open(kDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (directory.get() < 0 || fstat(directory.get(), &status) != 0) return -1;
    const bool shared = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (!shared || (status.st_mode & S_ISVTX) != 0) return directory.release();
    errno = EPERM;
    return -1;
}

// The directory serves all users, whoever comes first.
int openOrMakeDirectory() {
    mkdir(kDirectory, kDirectoryMode);
    const int directory = openDirectory();
    struct stat status;
    if (directory >= 0 && fstat(directory, &status) == 0 && status.st_uid == geteuid() &&
        (status.st_mode & 07777) != kDirectoryMode) {
        fchmod(directory, kDirectoryMode);
    }
    return directory;
}

std::string fileNameOf(uid_t user) { return namespacedName("agent." + std::to_string(user)); }

std::string textOf(pid_t pid) { return "norvo agent " + std::to_string(pid) + '\n'; }

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool isStillNamed(int directory, const std::string& name, int file) {
    struct stat named;
    struct stat opened;
    return fstatat(directory, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(file, &opened) == 0 && sameFile(named, opened);
}

struct flock wholeFile(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

// The holder of a write lock, which needs write permission. Asking on behalf of a read lock leaves
// out read locks, which any user can have.
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

// A file with several names may be any file of that user, locked for a purpose of its own, that
// somebody linked here: then its text tells.
bool isMarkFile(int file, const struct stat& status, pid_t writer) {
    if (status.st_nlink <= 1) return true;
    char text[32] = {};
    const ssize_t length = pread(file, text, sizeof text - 1, 0);
    return length > 0 &&
           (writer == 0 ? std::strncmp(text, "norvo agent ", 12) == 0 : textOf(writer) == text);
}

// `file` must have been opened from the name of the user's mark.
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

// What was opened from the name of this user's mark; sets right permissions that are wrong.
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

// Whether opening the mark's name failed because of what stands there.
bool isRefusedByIntruder(int error) {
    return error == ELOOP || error == EACCES || error == EPERM || error == ENXIO;
}

// For people, and for isMarkFile(). Without it the lock still holds.
void writeText(int file) {
    const std::string text = textOf(getpid());
    if (ftruncate(file, 0) == 0) {
        [[maybe_unused]] const auto written = pwrite(file, text.data(), text.size(), 0);
    }
}

}  // namespace

AgentMark& AgentMark::ofThisProcess() {
    static AgentMark* const mark = new AgentMark;
    return *mark;
}

// The lock is held over a fork, so that the child finds it free.
AgentMark::AgentMark() {
    pthread_atfork([]() NORVO_NO_THREAD_SAFETY_ANALYSIS { ofThisProcess().m_mutex.lock(); },
                   []() NORVO_NO_THREAD_SAFETY_ANALYSIS { ofThisProcess().m_mutex.unlock(); },
                   []() NORVO_NO_THREAD_SAFETY_ANALYSIS { ofThisProcess().m_mutex.unlock(); });
}

std::string AgentMark::pathOf(uid_t user) {
    return std::string(kDirectory) + '/' + fileNameOf(user);
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
    if (outcome.error != 0) {
        NORVO_LOG(Error, "Cannot mark the active agent in ", pathOf(geteuid()), ": ",
                  std::strerror(outcome.error));
    }
}

void AgentMark::release() {
    LocalLock lock(m_mutex);
    if (!holds()) return;
    const Descriptor directory(openDirectory());
    const std::string name = fileNameOf(geteuid());
    // Safe under the lock: whoever locks the file next sees that it has lost its name.
    if (directory.get() >= 0 && isStillNamed(directory.get(), name, m_file)) {
        unlinkat(directory.get(), name.c_str(), 0);
    }
    forget();
}

std::optional<pid_t> AgentMark::holderOf(uid_t user) {
    LocalLock lock(m_mutex);
    if (holds() && user == geteuid()) return m_claimant;
    const Descriptor directory(openDirectory());
    if (directory.get() < 0) return std::nullopt;
    const Descriptor file(openat(directory.get(), fileNameOf(user).c_str(), O_RDONLY | kOpenFlags));
    return file.get() < 0 ? std::nullopt : holderOfFile(file.get(), user);
}

bool AgentMark::holds() {
    if (m_file >= 0 && m_claimant != getpid()) forget();
    return m_file >= 0;
}

void AgentMark::forget() {
    close(std::exchange(m_file, -1));
    m_claimant = 0;
}

AgentMark::Outcome AgentMark::claimLocked() {
    const Descriptor directory(openOrMakeDirectory());
    Attempt result = Attempt::Failed;
    if (directory.get() >= 0) {
        const std::string name = fileNameOf(geteuid());
        result = Attempt::Again;
        for (int i = 0; i < kAttempts && result == Attempt::Again; ++i) {
            result = attempt(directory.get(), name);
        }
    }
    Outcome outcome;
    outcome.marked = result == Attempt::Claimed;
    if (result == Attempt::Failed || result == Attempt::Again) outcome.error = errno;
    return outcome;
}

AgentMark::Attempt AgentMark::attempt(int directory, const std::string& name) {
    Descriptor file(openat(directory, name.c_str(), O_RDWR | O_CREAT | kOpenFlags, kFileMode));
    if (file.get() >= 0 && holderOfFile(file.get(), geteuid())) return Attempt::HeldByOther;
    if (file.get() < 0 && !isRefusedByIntruder(errno)) return Attempt::Failed;
    const Found found = inspect(file.get());
    if (found == Found::Removed) return Attempt::Again;
    if (found == Found::Intruder) return clearAway(directory, name);
    if (!lockForWriting(file.get())) return whyNotLocked(directory, name, file.get());
    if (!isStillNamed(directory, name, file.get())) return Attempt::Again;
    writeText(file.get());
    m_file = file.release();
    m_claimant = getpid();
    m_touched = std::chrono::steady_clock::now();
    return Attempt::Claimed;
}

// Two who clear it away at once may take each other's new file: renew() notices.
AgentMark::Attempt AgentMark::clearAway(int directory, const std::string& name) {
    const bool cleared = unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT;
    return cleared ? Attempt::Again : Attempt::Failed;
}

// A file that somebody locks for reading, which no process of this user does, gives way to another.
AgentMark::Attempt AgentMark::whyNotLocked(int directory, const std::string& name, int file) {
    if (errno != EAGAIN && errno != EACCES) return Attempt::Failed;
    if (holderOfFile(file, geteuid())) return Attempt::HeldByOther;
    const bool inTheWay = isReadLocked(file) && isStillNamed(directory, name, file);
    return inTheWay ? clearAway(directory, name) : Attempt::Again;
}

AgentMark::Outcome AgentMark::renew() {
    Outcome outcome;
    outcome.marked = true;
    const Descriptor directory(openDirectory());
    if (directory.get() < 0 && errno != ENOENT) return outcome;
    if (directory.get() < 0 || !isStillNamed(directory.get(), fileNameOf(geteuid()), m_file)) {
        const Descriptor old(std::exchange(m_file, -1));
        outcome = claimLocked();
        outcome.renewed = true;
        return outcome;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - m_touched > kTouchPeriod) {
        futimens(m_file, nullptr);
        m_touched = now;
    }
    return outcome;
}

}  // namespace VDIFrameworkCommon
