#pragma once

#include <cstdint>

namespace vcctl {

// Has the system begin to put a part of a file on the disk, so that a later fsync() waits for less.
// Where there is no call for that nothing happens; failures show at the fsync().
void startWriteBack(int file, std::uint64_t offset, std::uint64_t length);

}  // namespace vcctl
