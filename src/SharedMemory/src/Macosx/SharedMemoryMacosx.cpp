#include "SharedMemoryMacosx.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <ctime>

#include "Log.h"
#include "PosixSharedMemory.h"
#include "VDIClientInfo.h"

NORVO_LOG_SOURCE("src/SharedMemory/src/Macosx/SharedMemoryMacosx")

using namespace VDIFrameworkCommon;

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

}  // namespace

SharedMemoryMacosx::~SharedMemoryMacosx() {
    if (isOpen()) SharedMemoryMacosx::Close();
}

unsigned int SharedMemoryMacosx::ElapsedMillisecond() {
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) NORVO_LOG(Error, "clock_gettime failure");
    return static_cast<unsigned int>(now.tv_sec * 1000 + now.tv_nsec / 1'000'000);
}

// Wraps like the word itself: another process may have left anything there.
long SharedMemoryMacosx::IncrementWithLocking(SharedWord* word) { return ++*word; }

void SharedMemoryMacosx::DecrementWithLocking(SharedWord* word) { word->fetch_sub(1); }

long SharedMemoryMacosx::ExcangeWithLocking(SharedWord* target, long value) {
    return target->exchange(value);
}

bool SharedMemoryMacosx::CreateOrOpen(const std::string& name, unsigned int size,
                                      bool bTryToCreate) {
    if (isOpen()) {
        NORVO_LOG(Error, "Shared Memory already initialized. SM: ", name);
        return false;
    }
    NORVO_LOG(Info, "Creating/openning shared memory: ", name);
    m_objectName = std::to_string(geteuid()) + clientPrefix() + name;
    m_descriptor = shm_open_mac(m_objectName, O_RDWR | (bTryToCreate ? O_CREAT : 0), 0600);
    if (m_descriptor < 0) {
        NORVO_LOG(Error, "Failed to create/open shared memory: ", name,
                  ", bTryToCreate=", bTryToCreate);
        return false;
    }
    void* address = mapObject(name, CalculateSharedMemorySize(size), bTryToCreate);
    if (!address) {
        close(m_descriptor);
        m_descriptor = -1;
        return false;
    }
    mapped(address, size);
    return true;
}

void* SharedMemoryMacosx::mapObject(const std::string& name, unsigned int totalSize,
                                    bool bTryToCreate) {
    if (ftruncate_mac(m_descriptor, totalSize) != 0) {
        NORVO_LOG(Error,
                  "ftruncate function failure, failed to set size for shared memory,: ", name);
        shm_unlink_mac(m_objectName);
        // Once more: another process may have made one of that name again in between.
        if (bTryToCreate) shm_unlink_mac(m_objectName);
        return nullptr;
    }
    void* address = mmap(nullptr, totalSize, PROT_READ | PROT_WRITE, MAP_SHARED, m_descriptor, 0);
    if (address == MAP_FAILED) {
        NORVO_LOG(Error, "mmap failure, failed to map shared memory: ", name);
        if (bTryToCreate) shm_unlink_mac(m_objectName);
        return nullptr;
    }
    return address;
}

bool SharedMemoryMacosx::CloseSharedMemory() {
    if (munmap(address(), CalculateSharedMemorySize(capacity())) != 0) {
        NORVO_LOG(Error, "Unpaming shared memory failure.", m_name);
    }
    if (close(m_descriptor) != 0) {
        NORVO_LOG(Error, "Closing the shared memory failure.", m_name);
        return false;
    }
    m_descriptor = -1;
    NORVO_LOG(Info, "Shared Memory closed.", m_name);
    return true;
}
