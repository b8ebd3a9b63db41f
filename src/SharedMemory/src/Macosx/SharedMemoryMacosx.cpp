#include "SharedMemoryMacosx.h"

#include <ctime>

#include "Log.h"

namespace shared_memory {

SharedMemoryMacosx::~SharedMemoryMacosx() {
    if (isOpen()) SharedMemoryMacosx::Close();
}

unsigned int SharedMemoryMacosx::ElapsedMillisecond() {
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) NORVO_LOG(Error, "clock_gettime failure");
    return static_cast<unsigned int>(now.tv_sec * 1000 + now.tv_nsec / 1'000'000);
}

// Wraps like the word itself: another process may have left any value.
long SharedMemoryMacosx::IncrementWithLocking(SharedWord* word) { return ++*word; }

void SharedMemoryMacosx::DecrementWithLocking(SharedWord* word) { word->fetch_sub(1); }

long SharedMemoryMacosx::ExcangeWithLocking(SharedWord* target, long value) {
    return target->exchange(value);
}

bool SharedMemoryMacosx::CreateOrOpen(const std::string& name, unsigned int size,
                                      bool bTryToCreate) {
    return m_slot.open(name, size, bTryToCreate, end(mode()));
}

bool SharedMemoryMacosx::CloseSharedMemory() { return m_slot.close(); }

}  // namespace shared_memory
