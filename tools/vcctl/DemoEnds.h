// The two local processes of the demo. They run as child processes of `vcctl demo`, each in its
// host's session namespace, and exchange lines with it over standard input and output.
#pragma once

#include <string>

namespace vcctl {

struct DemoEndOptions {
    std::string role;    // "near" or "far"
    std::string file;    // what the near end sends
    double seconds = 5;  // of the idle session
};

// The far end: returns Media's messages through Generic, and Basic's pings through StringCipher
// with their time of arrival. Ends with its standard input.
int runFarEnd();

// The near end: measures pings on an idle session, sends the file and receives it back while
// pinging, and prints its results as one line of JSON. Its lines: "up" when all streams are up,
// "half" when half of the file is back (it then waits for a line), and the result.
int runNearEnd(const DemoEndOptions& end);

}  // namespace vcctl
