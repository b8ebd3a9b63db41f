// The second process of a measurement: the program starts itself again in a role.
//
//     BENCH_ROLE(echo) { ...; return 0; }      // runs in the peer; `args` has the strings given
//     bench::PeerProcess peer("echo", {"64"}); // ended and reaped when it leaves scope
//
// Lines signal start and end (say() and hear() in the peer); they are not part of the measurement.
// A peer inherits the session namespace and dies with the program.
#pragma once

#include <chrono>
#include <stdexcept>

#include "support/ChildProcess.h"

namespace bench {

using PeerProcess = testsupport::ChildProcess;
using testsupport::hear;
using testsupport::say;

// Waits until the peer says "ready". Throws std::runtime_error if it does not.
inline void waitUntilReady(PeerProcess& peer) {
    if (peer.readLine(std::chrono::seconds(30)) != "ready")
        throw std::runtime_error("the peer did not start");
}

}  // namespace bench

#define BENCH_ROLE(name) CHILD_ROLE(name)
