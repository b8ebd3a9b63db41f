#pragma once

#include <thread>

namespace vcctl {

// SIGINT, SIGTERM and SIGHUP (stop, unless it was ignored when the process started) as something to
// wait for. One per process: install() is called once, by main. A third stop signal ends the
// process at once, for a user who has lost patience. Whoever drains asks requested() afterwards.
class StopSignal {
public:
    static void install();
    // Gives the signals back to the system: for a command that leaves nothing behind.
    static void release();
    static bool requested();
    // Throws the CommandError of an interruption when it is.
    static void throwIfRequested();
    // From here on SIGHUP does not stop the process, but asks it to drop its connection.
    static void keepOnHangUp();
    // Whether a SIGHUP that does not stop the process came since the last call.
    static bool takeHangUp();
    // A descriptor that becomes readable with a signal, until drain().
    static int descriptor();
    static void drain();
    // Waits up to `milliseconds`, or until a signal comes; true when the user wants to stop.
    static bool wait(int milliseconds);
};

// Stops the process, as SIGTERM does, once its standard input has no writer any more: for a child
// that must not outlive the program that started it. Reads nothing.
class StopWithInput {
public:
    StopWithInput();
    ~StopWithInput();
    StopWithInput(const StopWithInput&) = delete;
    StopWithInput& operator=(const StopWithInput&) = delete;

private:
    int m_end[2] = {-1, -1};
    std::thread m_watch;
};

}  // namespace vcctl
