#pragma once

namespace vcctl {

// SIGINT and SIGTERM as something to wait for. One per process: install() is called once, by main.
// A third signal ends the process at once, for a user who has lost patience.
class StopSignal {
public:
    static void install();
    static bool requested();
    // A descriptor that becomes readable, for good, with the first signal.
    static int descriptor();
    // Waits up to `milliseconds`; true when the user wants to stop.
    static bool wait(int milliseconds);
};

}  // namespace vcctl
