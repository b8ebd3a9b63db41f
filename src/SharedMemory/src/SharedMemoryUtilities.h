#pragma once

#include <string>

namespace shared_memory::utilities {

void sleep(unsigned int milliseconds);

// Copies `message` to a new[] array, which the caller deletes. False, with nothing changed, when it
// is empty or memory is exhausted.
bool copyToArray(const std::string& message, void** data, unsigned int& length);

}  // namespace shared_memory::utilities
