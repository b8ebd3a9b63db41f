#include "SocketOptions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace vcctl {

const int kKeepAliveIdle = TCP_KEEPALIVE;

std::optional<uid_t> peerUser(int socket) {
    uid_t user = 0;
    gid_t group = 0;
    if (getpeereid(socket, &user, &group) != 0) return std::nullopt;
    return user;
}

}  // namespace vcctl
