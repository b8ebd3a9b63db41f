#include "SegmentMapping.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "Log.h"
#include "PosixSharedMemory.h"
#include "SegmentUse.h"
#include "VDIClientInfo.h"

using namespace VDIFrameworkCommon;

namespace shared_memory {

namespace {

const char* clientPrefix() {
    switch (VDIClientInfo::getInstance().getClientType()) {
        case VDIClientType::Crews:
            return "CWVDI_";
        case VDIClientType::Meetings:
            return "MTVDI_";
        default:
            return "DEFVDI_";
    }
}

std::string objectNameOf(const std::string& name) {
    return std::to_string(geteuid()) + SegmentMapping::prefixed(name);
}

unsigned int mappableSize(const struct stat& status) {
    constexpr auto kMost = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(
        std::min<unsigned long long>(static_cast<unsigned long long>(status.st_size), kMost));
}

}  // namespace

SegmentMapping::~SegmentMapping() {
    if (isOpen()) close();
}

unsigned int SegmentMapping::sizeFor(unsigned int capacity) {
    return capacity + static_cast<unsigned int>(sizeof(SharedMemoryHeader));
}

std::string SegmentMapping::prefixed(const std::string& name) { return clientPrefix() + name; }

bool SegmentMapping::remove(const std::string& name) {
    return shm_unlink_mac(objectNameOf(name)) == 0;
}

bool SegmentMapping::open(const std::string& name, unsigned int capacity, bool create) {
    m_error = {};
    constexpr auto kLargest = std::numeric_limits<unsigned int>::max() - sizeof(SharedMemoryHeader);
    if (capacity == 0 || capacity > kLargest) {
        NORVO_LOG(Error, "Illegal capacity ", capacity, " for shared memory: ", name);
        fail(OpenFailure::InvalidArgument, 0);
        return false;
    }
    NORVO_LOG(Info, "Creating/openning shared memory: ", name);
    Sized sized = Sized::Again;
    for (int attempt = 0; attempt < 3 && sized == Sized::Again; ++attempt) {
        if (!openObject(name, create)) return false;
        sized = size(name, sizeFor(capacity), create);
        if (sized == Sized::Again) m_file.reset();
    }
    if (sized == Sized::Yes && map(name, create)) return true;
    m_file.reset();
    return false;
}

bool SegmentMapping::openObject(const std::string& name, bool create) {
    m_name = name;
    m_objectName = objectNameOf(name);
    m_file.reset(shm_open_mac(m_objectName, O_RDWR | (create ? O_CREAT : 0), 0600));
    if (m_file) return true;
    m_error = openErrorFor(errno);
    const ObjectHolder holder = holderOfSharedMemory(m_objectName);
    if (holder.isForeign) {
        m_error.failure = OpenFailure::NameTaken;
        m_error.holder = holder.user;
    }
    NORVO_LOG(Error, "Failed to create/open shared memory: ", name, ", bTryToCreate=", create, ": ",
              describe(m_error));
    return false;
}

// Only an object that was empty when opened is removed again: any other may be in use.
SegmentMapping::Sized SegmentMapping::size(const std::string& name, unsigned int totalSize,
                                           bool create) {
    struct stat status {};
    if (fstat(m_file.get(), &status) == 0) {
        // All that will be mapped: another process may have grown it without reserving memory.
        m_mappedSize = std::max(totalSize, mappableSize(status));
        if (ftruncate_mac(m_file.get(), m_mappedSize) == 0) return Sized::Yes;
    }
    m_error = openErrorFor(errno);
    const bool cannotGrow = status.st_size > 0 && m_error.error == EINVAL;
    if (cannotGrow && create && !isSegmentInUse(name)) {
        NORVO_LOG(Notice, "Shared memory is too small and nobody uses it, made anew: ", name);
        shm_unlink_mac(m_objectName);
        return Sized::Again;
    }
    if (cannotGrow) {
        m_error.failure = OpenFailure::CapacityMismatch;
        m_error.existingCapacity =
            mappableSize(status) - std::min(mappableSize(status), sizeFor(0));
    }
    NORVO_LOG(Error, "ftruncate function failure, failed to set size for shared memory,: ", name,
              ": ", describe(m_error));
    if (status.st_size != 0) return Sized::No;
    shm_unlink_mac(m_objectName);
    // Again: another process may have recreated the name in between.
    if (create) shm_unlink_mac(m_objectName);
    return Sized::No;
}

bool SegmentMapping::map(const std::string& name, bool create) {
    if (look() == State::Shrunk) {
        NORVO_LOG(Error, "Shared memory was cut by another process: ", name);
        fail(OpenFailure::SystemError, 0);
        return false;
    }
    void* address =
        mmap(nullptr, m_mappedSize, PROT_READ | PROT_WRITE, MAP_SHARED, m_file.get(), 0);
    if (address != MAP_FAILED) {
        m_address = address;
        m_capacity = m_mappedSize - sizeFor(0);
        return true;
    }
    m_error = openErrorFor(errno);
    NORVO_LOG(Error, "mmap failure, failed to map shared memory: ", name, ": ", describe(m_error));
    if (create && !isSegmentInUse(name)) shm_unlink_mac(m_objectName);
    return false;
}

SegmentMapping::Growth SegmentMapping::growToObject() {
    struct stat status {};
    if (fstat(m_file.get(), &status) != 0 || mappableSize(status) <= m_mappedSize) {
        return Growth::NotLarger;
    }
    // Another process may have grown it without reserving memory.
    if (ftruncate_mac(m_file.get(), mappableSize(status)) != 0) return Growth::Refused;
    void* address =
        mmap(nullptr, mappableSize(status), PROT_READ | PROT_WRITE, MAP_SHARED, m_file.get(), 0);
    if (address == MAP_FAILED) return Growth::Refused;
    munmap(m_address, m_mappedSize);
    m_address = address;
    m_mappedSize = mappableSize(status);
    m_capacity = m_mappedSize - sizeFor(0);
    return Growth::Done;
}

SegmentMapping::State SegmentMapping::look() const {
    struct stat status {};
    if (fstat(m_file.get(), &status) != 0 || mappableSize(status) < m_mappedSize) {
        return State::Shrunk;
    }
    if (isSharedMemoryRemoved(status)) return State::Removed;
    return mappableSize(status) > m_mappedSize ? State::Grown : State::Whole;
}

bool SegmentMapping::close() {
    if (munmap(m_address, m_mappedSize) != 0) {
        NORVO_LOG(Error, "Unpaming shared memory failure.", m_name);
    }
    m_address = nullptr;
    m_capacity = 0;
    const bool closed = ::close(m_file.release()) == 0;
    if (!closed) NORVO_LOG(Error, "Closing the shared memory failure.", m_name);
    return closed;
}

void SegmentMapping::fail(OpenFailure failure, int error) {
    m_error.failure = failure;
    m_error.error = error;
}

}  // namespace shared_memory
