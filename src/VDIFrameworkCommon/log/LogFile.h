#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "FileDescriptor.h"

namespace KLT::kltlogger {

// A log file that rolls: when a write would take it past its limit, it becomes <path>.1, what was
// .1 becomes .2, and so on, and a new file is begun; kKept old files are kept. Several processes
// may write to one path: each write is appended whole, and whoever finds that the path names
// another file now moves to that. Not thread-safe.
class LogFile {
public:
    static constexpr off_t kDefaultLimit = off_t{10} * 1024 * 1024;
    static constexpr int kKept = 3;

    explicit LogFile(off_t limit = kDefaultLimit) : m_limit(limit) {}

    // Closes the present file and opens `path` for appending, readable by the owner only, making
    // its directory when it is missing. False when that fails, or when something else than a
    // regular file of this user's with one name stands there; then there is no file, and each write
    // tries again. An empty path means no file.
    bool open(const std::string& path);
    bool isOpen() const { return bool(m_file); }

    // Appends whole lines. What the system refuses (a full disk) is dropped.
    void write(std::string_view lines);

private:
    bool openPath();
    void followPath();
    void roll();

    const off_t m_limit;
    std::string m_path;
    VDIFrameworkCommon::FileDescriptor m_file;
};

}  // namespace KLT::kltlogger
