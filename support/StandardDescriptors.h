#pragma once

#include <fcntl.h>

#include <cerrno>

namespace support {

// Call first in main(). Closed standard descriptors are taken by something whose use fails (EBADF):
// otherwise the next file that is opened becomes standard output, and messages go into it.
inline void occupyStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
        if (open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY) != fd) return;
    }
}

}  // namespace support
