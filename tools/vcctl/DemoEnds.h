// The two local processes of the demo. They run as child processes of `vcctl demo`, each in the
// session namespace of its host, and talk to it in lines on standard input and output.
#pragma once

#include <string>

namespace vcctl {

struct DemoEndOptions {
    std::string role;    // "near" or "far"
    std::string file;    // what the near end sends
    double seconds = 5;  // of the idle session
};

// The far end: what comes through Media goes back through Generic, and a ping through Basic goes
// back through StringCipher with the time at which it came. Ends with its standard input.
int runFarEnd();

// The near end: measures pings on an idle session, sends the file and takes it back while it pings
// on, and prints what it found as one line of JSON. Its lines: "up" when all streams are, "half"
// when half of the file is back (it then waits for a line), and the result.
int runNearEnd(const DemoEndOptions& end);

}  // namespace vcctl
