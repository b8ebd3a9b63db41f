#pragma once

#include <sys/types.h>

#include <optional>

namespace vcctl {

// The option of IPPROTO_TCP for the seconds of silence before the first keep-alive probe.
extern const int kKeepAliveIdle;

// The user who is at the other end of a Unix-domain socket; empty when the system does not tell.
std::optional<uid_t> peerUser(int socket);

}  // namespace vcctl
