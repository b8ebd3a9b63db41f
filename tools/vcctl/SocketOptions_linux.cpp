#include "SocketOptions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace vcctl {

const int kKeepAliveIdle = TCP_KEEPIDLE;

std::optional<uid_t> peerUser(int socket) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return std::nullopt;
    return peer.uid;
}

}  // namespace vcctl
