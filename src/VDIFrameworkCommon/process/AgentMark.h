#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "FileDescriptor.h"
#include "LocalMutex.h"

namespace VDIFrameworkCommon {

// The file behind the active-agent record: agent.<effective user ID> (prefixed with the session
// namespace) in /tmp/norvo, readable by all, holding "norvo agent <process ID>". A process is
// marked while it holds a POSIX write lock on it: the only kind of lock that ends exactly with its
// process, regardless of forks, and whose holder anyone can query without disturbing it.
//
// Such a lock is lost when its process closes any descriptor of the file. So a process has one
// AgentMark, one descriptor while it is marked, and answers from memory meanwhile.
//
// Other users may lock the file for reading, plant something under its name first, link it
// elsewhere, or create /tmp/norvo so that nobody else can write there. None of that makes an
// unmarked process appear marked, or keeps a process from being marked: where an obstacle cannot be
// removed, the file is placed in the next of the user's folders (SessionFolder.h), and all of them
// are checked. Thread-safe and fork-safe: a child is not marked.
class AgentMark {
public:
    static AgentMark& ofThisProcess();

    // Marks this process. False when another one is marked, or when the file cannot be created in
    // any of the folders. A log line names the obstacle.
    bool claim();
    // Whether this process is marked. Recreates a file removed meanwhile, for example by a /tmp
    // cleaner.
    bool isClaimed();
    // Ends the mark of this process and removes the file.
    void release();

    // The process that is marked for `user`; 0 for one whose ID is unknown here (in a container).
    std::optional<pid_t> holderOf(uid_t user);

    static std::string pathOf(uid_t user);

private:
    enum class Attempt { Claimed, HeldByOther, Again, Failed };

    // What happened under the lock; logged after its release.
    struct Outcome {
        bool marked = false;
        bool renewed = false;
        std::string inTheWay;  // what and where
    };

    AgentMark();
    void log(const Outcome& outcome);
    bool holds() NORVO_REQUIRES(m_mutex);
    Outcome claimLocked() NORVO_REQUIRES(m_mutex);
    Attempt claimIn(const std::string& folder, std::string& inTheWay) NORVO_REQUIRES(m_mutex);
    Attempt attempt(int directory, const std::string& name) NORVO_REQUIRES(m_mutex);
    static Attempt clearAway(int directory, const std::string& name);
    static Attempt whyNotLocked(int directory, const std::string& name, int file);
    Outcome renew() NORVO_REQUIRES(m_mutex);
    void removeFile() NORVO_REQUIRES(m_mutex);

    // Not held while logging: at a fork it is taken after the logger's.
    LocalMutex m_mutex;
    FileDescriptor m_file NORVO_GUARDED_BY(m_mutex);
    std::string m_folder NORVO_GUARDED_BY(m_mutex);  // where it is
    // The process that opened m_file: not this one after a fork.
    pid_t m_claimant NORVO_GUARDED_BY(m_mutex) = 0;
    std::chrono::steady_clock::time_point m_touched NORVO_GUARDED_BY(m_mutex);
};

}  // namespace VDIFrameworkCommon
