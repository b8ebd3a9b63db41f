#pragma once

#include <string>

namespace shared_memory::utilities {

// Sleeps the calling thread.
void sleep(unsigned int milliseconds);

// A copy of `message` as a new[] array, which the caller deletes. False, with nothing changed, when
// it is empty or memory is missing.
bool copyToArray(const std::string& message, void** data, unsigned int& length);

}  // namespace shared_memory::utilities
