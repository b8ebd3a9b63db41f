// The second process of a measurement: the program starts itself again in a role.
//
//     BENCH_ROLE(echo) { ...; return 0; }          // runs in the peer; `args` are the strings
//     given bench::PeerProcess peer("echo", {"64"});     // ended and reaped when it leaves scope
//
// readLine() and writeLine() serve as the agreed start and end; they are not for what is measured.
// A peer inherits the session namespace and dies with the program.
#pragma once

#include "support/ChildProcess.h"

namespace bench {

using PeerProcess = testsupport::ChildProcess;

}  // namespace bench

#define BENCH_ROLE(name) CHILD_ROLE(name)
