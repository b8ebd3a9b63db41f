// The process that stands behind a run, so that nothing of it is left however it ends.
#pragma once

#include <functional>
#include <string>

namespace bench {

// Does `run` in a child process, and returns what it returns. When the user ends the program
// (SIGINT, SIGTERM), the child calls `stopped` on another thread and is gone, within a few seconds;
// then, as when the child is killed, every process that it has started is ended too, and the result
// is 128 + the signal's number. Then, as before the run, removes whatever this or an
// earlier, killed program has left in shared memory and among the temporary files: all that has
// "nvb" and the process ID of the program in its name, followed by '-' or '.'. Call it while the
// program has one thread.
int superviseRun(const std::function<int()>& run, const std::function<void()>& stopped);

// For a process that `run` has started: from here on it ends when that one does. False when that
// has happened already.
bool endWithTheRun();

}  // namespace bench
