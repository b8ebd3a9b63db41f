#pragma once

#include <thread>

namespace vcctl {

// Makes SIGINT, SIGTERM and SIGHUP (a stop unless ignored when the process started) something to
// wait for. One per process: main calls install() once. A third stop signal ends the process at
// once, for an impatient user. After drain(), check requested().
class StopSignal {
public:
    static void install();
    // Stops handling the signals: for a command that leaves nothing behind.
    static void release();
    static bool requested();
    // Throws the CommandError of an interruption if a stop was requested.
    static void throwIfRequested();
    // From now on SIGHUP does not stop the process, but asks it to drop its connection.
    static void keepOnHangUp();
    // Whether such a SIGHUP has come since the last call.
    static bool takeHangUp();
    // A descriptor that is readable from a signal until drain().
    static int descriptor();
    static void drain();
    // Waits up to `milliseconds` or for a signal; true when the user wants to stop.
    static bool wait(int milliseconds);
};

// Stops the process like SIGTERM once its standard input has no writer: for a child
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
