#include "ReceivedFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <utility>

#include "CommandError.h"
#include "WriteBack.h"

namespace vcctl {

namespace {

constexpr std::size_t kBuffer = std::size_t{1} << 18;
// Write-back starts after this many bytes, so the final sync need not wait for the whole file.
constexpr std::uint64_t kWriteBack = std::uint64_t{8} << 20;

std::string resolved(const std::string& target) {
    std::error_code failure;
    const auto path = std::filesystem::canonical(target, failure);
    return failure ? target : path.string();
}

bool isOrdinary(const std::string& target) {
    struct stat status {};
    return stat(target.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

}  // namespace

ReceivedFile::ReceivedFile(const std::string& target, Kind kind)
    : m_target(target == "-" ? target : resolved(target)) {
    if (target == "-") {
        m_file = stdout;
    } else if (kind != Kind::Direct && isOrdinary(m_target)) {
        openPart();
    } else {
        openTarget();
    }
    m_isFormer = m_file != stdout && kind != Kind::KeptPart;
    if (!m_file) throw systemError("cannot write " + m_target, errno);
    std::setvbuf(m_file, nullptr, _IOFBF, kBuffer);
}

ReceivedFile::~ReceivedFile() {
    if (isPart() && !m_committed && m_file && size() == 0) unlink(m_part.c_str());
}

void ReceivedFile::openTarget() {
    const int target = open(m_target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (target < 0) return;
    m_owned.reset(fdopen(target, "wb"));
    m_file = m_owned.get();
    if (!m_file) close(target);
}

void ReceivedFile::openPart() {
    m_part = m_target + ".part";
    m_lock = support::Descriptor(open(m_part.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (!m_lock) throw systemError("cannot write " + m_part, errno);
    if (flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0) {
        const std::string part = std::exchange(m_part, {});
        throw CommandError("another vcctl recv is writing " + part);
    }
    struct stat target {};
    const bool isReplaced = stat(m_target.c_str(), &target) == 0;
    if (isReplaced && fchmod(m_lock.get(), target.st_mode & 0777) != 0)
        throw systemError("cannot write " + m_part, errno);
    m_owned.reset(std::fopen(m_part.c_str(), "abe"));
    m_file = m_owned.get();
}

void ReceivedFile::begin() {
    if (!std::exchange(m_isFormer, false)) return;
    struct stat status {};
    const bool isFile = fstat(fileno(m_file), &status) == 0 && S_ISREG(status.st_mode);
    check(!isFile || ftruncate(fileno(m_file), 0) == 0);
}

std::uint64_t ReceivedFile::size() const {
    struct stat status {};
    if (!isPart() || fstat(m_lock.get(), &status) != 0) return 0;
    return static_cast<std::uint64_t>(status.st_size);
}

void ReceivedFile::count(TransferTally& tally) const {
    if (isPart()) tally.addFile(m_lock.get(), size(), m_part);
}

void ReceivedFile::clear() {
    flush();
    if (isPart()) check(ftruncate(m_lock.get(), 0) == 0);
    m_writtenBack = 0;
}

void ReceivedFile::check(bool done) const {
    if (!done) throw outputError(m_target == "-" ? "standard output" : m_target);
}

void ReceivedFile::write(const char* data, std::size_t length) {
    begin();
    check(std::fwrite(data, 1, length, m_file) == length);
    m_unwritten += length;
    if (m_unwritten >= kWriteBack) writeBack();
}

void ReceivedFile::writeBack() {
    m_unwritten = 0;
    if (!isPart()) return;
    flush();
    const std::uint64_t end = size();
    startWriteBack(fileno(m_file), m_writtenBack, end - std::min(end, m_writtenBack));
    m_writtenBack = end;
}

void ReceivedFile::flush() { check(std::fflush(m_file) == 0); }

void ReceivedFile::commit() {
    flush();
    // A pipe or terminal cannot be synced: fsync() fails with EINVAL or the like.
    const bool synced = fsync(fileno(m_file)) == 0 || !isPart();
    check(synced);
    if (!isPart()) return;
    std::FILE* const file = m_owned.release();
    m_file = nullptr;
    check(std::fclose(file) == 0);
    check(std::rename(m_part.c_str(), m_target.c_str()) == 0);
    m_committed = true;
    syncFolder();
}

void ReceivedFile::syncFolder() const {
    const auto folder = std::filesystem::path(m_target).parent_path();
    const support::Descriptor descriptor(
        open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_CLOEXEC));
    if (descriptor) fsync(descriptor.get());
}

std::string ReceivedFile::advice() const {
    if (!isPart() || m_committed || m_isFormer || size() == 0) return "";
    return "; what came is in " + m_part + ": go on with --resume at both ends";
}

}  // namespace vcctl
