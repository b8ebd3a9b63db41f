// The supervisor of a run, which cleans up however the run ends.
#pragma once

#include <functional>
#include <string>

namespace bench {

// Calls `run` in a child process, and returns its result. When the user ends the program
// (SIGINT, SIGTERM), the child calls `stopped` on another thread and ends within a few seconds.
// Then, as when the child is killed, every process that it has started is ended too, and the result
// is 128 + the signal's number. Before and after the run, removes what this or an
// earlier, killed program has left in shared memory and among the temporary files: everything with
// "nvb" and the program's process ID in its name, followed by '-' or '.'. Call while the
// program has one thread.
int superviseRun(const std::function<int()>& run, const std::function<void()>& stopped);

// For a process that `run` has started: from now on it ends when its parent does. False if the
// parent has already ended.
bool endWithTheRun();

}  // namespace bench
