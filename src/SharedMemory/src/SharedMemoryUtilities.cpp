#include "SharedMemoryUtilities.h"

#include <chrono>
#include <cstring>
#include <new>
#include <thread>

namespace shared_memory::utilities {

void sleep(unsigned int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

bool copyToArray(const std::string& message, void** data, unsigned int& length) {
    auto* bytes = message.empty() ? nullptr : new (std::nothrow) char[message.size()];
    if (!bytes) return false;
    std::memcpy(bytes, message.data(), message.size());
    *data = bytes;
    length = static_cast<unsigned int>(message.size());
    return true;
}

}  // namespace shared_memory::utilities
