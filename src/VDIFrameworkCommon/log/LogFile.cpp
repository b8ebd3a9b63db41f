#include "LogFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "FileUtils.h"
#include "RegularFile.h"

namespace KLT::kltlogger {

using VDIFrameworkCommon::FileDescriptor;
using VDIFrameworkCommon::FileUtils;

namespace {

// In a folder that others can write to, the name may be a file of theirs, or a second link to a
// file of this user.
bool mayBeLog(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

FileDescriptor openLog(const std::string& path) {
    if (path.empty()) return FileDescriptor();
    if (const auto end = path.rfind('/'); end != std::string::npos && end > 0)
        FileUtils::createDirectory(path.substr(0, end));
    // Opening a pipe would already wake its reader.
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && !mayBeLog(status)) return FileDescriptor();
    constexpr int kFlags = O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY;
    FileDescriptor file(::open(path.c_str(), O_WRONLY | kFlags, 0600));
    if (file && (fstat(file.get(), &status) != 0 || !mayBeLog(status))) file.reset();
    return file;
}

}  // namespace

bool LogFile::open(const std::string& path) {
    FileDescriptor file = openLog(path);
    if (!file && !path.empty()) return false;
    m_path = path;
    m_file = std::move(file);
    return true;
}

void LogFile::openPath() {
    m_file = openLog(m_path);
    m_isLineTorn = false;
}

void LogFile::write(std::string_view lines) {
    followPath();
    struct stat status {};
    if (m_file && fstat(m_file.get(), &status) == 0 && status.st_size > 0 &&
        status.st_size + static_cast<off_t>(lines.size()) > m_limit) {
        roll();
    }
    if (m_isLineTorn) append("\n");
    if (!m_isLineTorn) append(lines);
}

void LogFile::append(std::string_view text) {
    const std::size_t whole = text.size();
    while (m_file && !text.empty()) {
        const ssize_t written = ::write(m_file.get(), text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) break;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    if (text.size() < whole) m_isLineTorn = !text.empty();
}

bool LogFile::isNamed() const {
    struct stat ours {};
    struct stat named {};
    return m_file && fstat(m_file.get(), &ours) == 0 && lstat(m_path.c_str(), &named) == 0 &&
           VDIFrameworkCommon::isSameFile(ours, named);
}

// Another process may have rolled the file, or it was removed, perhaps with its directory.
void LogFile::followPath() {
    if (!isNamed()) openPath();
}

// By one process at a time: another one that found the same file full finds it renamed afterwards.
// The lock ends with its descriptor.
void LogFile::roll() {
    if (flock(m_file.get(), LOCK_EX | LOCK_NB) != 0) return;
    if (!isNamed()) return openPath();
    for (int old = kKept - 1; old >= 0; --old) {
        const std::string from = old == 0 ? m_path : m_path + '.' + std::to_string(old);
        std::rename(from.c_str(), (m_path + '.' + std::to_string(old + 1)).c_str());
    }
    openPath();
}

}  // namespace KLT::kltlogger
