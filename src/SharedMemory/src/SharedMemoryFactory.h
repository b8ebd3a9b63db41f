#pragma once

#include <memory>

#include "SharedMemoryI.h"

namespace shared_memory {

enum class ESharedMemoryType : int {
    Plain = 0,                     // one writer, one reader
    Broadcast = 1,                 // one writer, every reader sees every message
    MultipleWritersOneReader = 2,  // several writers, whole messages never interleave
};

// A segment that is not set up yet. Null for an unknown type.
std::shared_ptr<SharedMemoryI> getSharedMemoryInstance(ESharedMemoryType type);

}  // namespace shared_memory
