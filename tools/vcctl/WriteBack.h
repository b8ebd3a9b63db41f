#pragma once

#include <cstdint>

namespace vcctl {

// Starts writing part of a file to disk, so that a later fsync() waits for less.
// Does nothing where the system has no such call; failures show at the fsync().
void startWriteBack(int file, std::uint64_t offset, std::uint64_t length);

}  // namespace vcctl
