#include <netinet/in.h>
#include <netinet/tcp.h>

#include "KeepAlive.h"

namespace vcctl {

const int kKeepAliveIdle = TCP_KEEPALIVE;

}  // namespace vcctl
