#pragma once

namespace vcctl {

// SIGINT and SIGTERM (stop) and SIGHUP (drop the connection) as something to wait for. One per
// process: install() is called once, by main. A third stop signal ends the process at once, for a
// user who has lost patience.
class StopSignal {
public:
    static void install();
    static bool requested();
    // Whether SIGHUP came since the last call.
    static bool takeHangUp();
    // A descriptor that becomes readable with a signal, until drain().
    static int descriptor();
    static void drain();
    // Waits up to `milliseconds`; true when the user wants to stop.
    static bool wait(int milliseconds);
};

}  // namespace vcctl
