#pragma once

#include <sys/types.h>

#include <optional>

namespace vcctl {

// The IPPROTO_TCP option for the idle seconds before the first keep-alive probe.
extern const int kKeepAliveIdle;

// The user ID of a Unix-domain socket's peer; empty when the system does not provide it.
std::optional<uid_t> peerUser(int socket);

}  // namespace vcctl
