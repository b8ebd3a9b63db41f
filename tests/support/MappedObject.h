#pragma once

#include <sys/mman.h>

#include "FileDescriptor.h"
#include "PosixSharedMemory.h"
#include "TestSupport.h"

namespace testsupport {

// A shared-memory object as another program would map it. Throws when that fails.
class MappedObject {
public:
    // With a size, the object is made that large, and is zero when it is new.
    explicit MappedObject(const std::string& name, std::size_t size = 0) {
        const VDIFrameworkCommon::FileDescriptor object(
            VDIFrameworkCommon::shm_open_mac(name, size != 0 ? O_RDWR | O_CREAT : O_RDWR, 0600));
        if (size != 0) VDIFrameworkCommon::ftruncate_mac(object.get(), static_cast<off_t>(size));
        struct stat status {};
        fstat(object.get(), &status);
        m_size = static_cast<std::size_t>(status.st_size);
        void* const address =
            mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, object.get(), 0);
        if (address == MAP_FAILED) throw std::runtime_error("cannot map " + name);
        m_bytes = static_cast<char*>(address);
    }
    ~MappedObject() { munmap(m_bytes, m_size); }
    MappedObject(const MappedObject&) = delete;
    MappedObject& operator=(const MappedObject&) = delete;

    char* data() const { return m_bytes; }
    std::size_t size() const { return m_size; }

private:
    char* m_bytes = nullptr;
    std::size_t m_size = 0;
};

}  // namespace testsupport
