#pragma once

namespace shared_memory::utilities {

// Sleeps the calling thread.
void sleep(unsigned int milliseconds);

}  // namespace shared_memory::utilities
