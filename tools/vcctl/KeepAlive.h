#pragma once

namespace vcctl {

// The option of IPPROTO_TCP for the seconds of silence before the first keep-alive probe.
extern const int kKeepAliveIdle;

}  // namespace vcctl
