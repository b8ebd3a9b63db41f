#pragma once

#include <string>

#include "FileDescriptor.h"
#include "OpenFailure.h"
#include "SharedMemoryLayout.h"

namespace shared_memory {

// The shared-memory object of one segment, and this process's mapping of it.
//
// The object's name is the effective user ID, "CWVDI_", "MTVDI_" or "DEFVDI_" by client type, and
// the segment name. Only its owner has access; it stays in the system when unmapped. It may grow
// while mapped, and is never shrunk. Not thread-safe.
class SegmentMapping {
public:
    SegmentMapping() = default;
    ~SegmentMapping();
    SegmentMapping(const SegmentMapping&) = delete;
    SegmentMapping& operator=(const SegmentMapping&) = delete;

    // Maps the object of segment `name` (with `create`, creates a zero-filled one if there is
    // none), with a data area of at least `capacity` bytes. An object that is too small is grown.
    // Where the system cannot grow it, it is replaced if no living process has it open. On failure
    // logs one line and returns false; error() says why. An object that was empty is then removed,
    // and with `create` one that cannot be mapped and that no living process has open.
    bool open(const std::string& name, unsigned int capacity, bool create);
    enum class Growth {
        Done,
        NotLarger,  // the object is no larger than the mapping
        Refused,    // the system has no memory or address space for it; the old mapping stays
    };
    // Remaps the object at its current size.
    Growth growToObject();
    // False when the system refused to close the descriptor. The mapping is gone in either case.
    bool close();

    bool isOpen() const { return m_address != nullptr; }
    // Why the last open() failed.
    const OpenError& error() const { return m_error; }
    // Null unless open.
    SharedMemoryHeader* header() const { return static_cast<SharedMemoryHeader*>(m_address); }
    char* data() const { return static_cast<char*>(m_address) + sizeof(SharedMemoryHeader); }
    // Bytes of the data area as mapped: at least as many as passed to open().
    unsigned int capacity() const { return m_capacity; }

    enum class State {
        Whole,   // the object has the mapped size
        Grown,   // the object is larger
        Shrunk,  // another process has truncated it: touching the lost part would kill this process
        Removed,  // its name was removed from the system: a newcomer would open another object
    };
    // One system call.
    State look() const;

    // Removes the object of that name from the system. Existing mappings stay valid.
    static bool remove(const std::string& name);
    // `name` with the client type's prefix.
    static std::string prefixed(const std::string& name);
    // Bytes of the object of a segment with a data area of `capacity` bytes.
    static unsigned int sizeFor(unsigned int capacity);

private:
    enum class Sized { Yes, No, Again };

    bool openObject(const std::string& name, bool create);
    Sized size(const std::string& name, unsigned int totalSize, bool create);
    bool map(const std::string& name, bool create);
    void fail(OpenFailure failure, int error);

    std::string m_name;
    std::string m_objectName;
    VDIFrameworkCommon::FileDescriptor m_file;
    void* m_address = nullptr;
    unsigned int m_mappedSize = 0;
    unsigned int m_capacity = 0;
    OpenError m_error;
};

}  // namespace shared_memory
