#include "SharedMemoryUtilities.h"

#include <chrono>
#include <thread>

namespace shared_memory::utilities {

void sleep(unsigned int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace shared_memory::utilities
