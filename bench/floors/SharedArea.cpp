#include "SharedArea.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "Hop.h"

namespace bench {

SharedArea::SharedArea(const std::string& name, std::size_t size, bool create)
    : m_name('/' + name), m_size(size), m_created(create) {
    const int fd = shm_open(m_name.c_str(), O_RDWR | (create ? O_CREAT | O_EXCL : 0), 0600);
    if (fd < 0) throwSystemError("shm_open");
    if (create && ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        shm_unlink(m_name.c_str());
        throwSystemError("ftruncate");
    }
    m_address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (m_address == MAP_FAILED) {
        if (create) shm_unlink(m_name.c_str());
        throwSystemError("mmap");
    }
}

SharedArea::~SharedArea() {
    munmap(m_address, m_size);
    if (m_created) shm_unlink(m_name.c_str());
}

}  // namespace bench
