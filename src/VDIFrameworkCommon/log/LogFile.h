#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "FileDescriptor.h"

namespace KLT::kltlogger {

// A log file that rolls over: when a write would exceed its limit, it becomes <path>.1, .1 becomes
// .2, and so on, and a new file is started; kKept old files are kept. Several processes may write
// to one path: each write is appended whole, and a process that finds another file at the path
// switches to it. Not thread-safe.
class LogFile {
public:
    static constexpr off_t kDefaultLimit = off_t{10} * 1024 * 1024;
    static constexpr int kKept = 3;

    explicit LogFile(off_t limit = kDefaultLimit) : m_limit(limit) {}

    // Opens `path` for appending, readable by the owner only, creating its directory if missing,
    // and closes the file so far. False, with that one kept, when this fails, or when `path` exists
    // but is not a regular file of this user with a single link. An empty path means no file.
    bool open(const std::string& path);

    // Appends whole lines. Lines that the system refuses (a full disk) are dropped. Without its
    // file each write tries to open it again.
    void write(std::string_view lines);

private:
    void openPath();
    bool isNamed() const;
    void followPath();
    void append(std::string_view text);
    void roll();

    const off_t m_limit;
    std::string m_path;
    VDIFrameworkCommon::FileDescriptor m_file;
    bool m_isLineTorn = false;  // the system took a part of what was written last
};

}  // namespace KLT::kltlogger
