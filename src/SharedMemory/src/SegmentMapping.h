#pragma once

#include <string>

#include "FileDescriptor.h"
#include "OpenFailure.h"
#include "SharedMemoryLayout.h"

namespace shared_memory {

// The shared-memory object of one segment, and this process's mapping of it.
//
// The object is called: effective user ID, "CWVDI_", "MTVDI_" or "DEFVDI_" by client type, segment
// name. It is for its owner only, and stays in the system when the mapping ends. It may grow while
// it is mapped, and is never made smaller. Not thread-safe.
class SegmentMapping {
public:
    SegmentMapping() = default;
    ~SegmentMapping();
    SegmentMapping(const SegmentMapping&) = delete;
    SegmentMapping& operator=(const SegmentMapping&) = delete;

    // Maps the object of segment `name`, with `create` made zero-filled when there is none, so that
    // its data area has at least `capacity` bytes. An object that is too small grows. Where the
    // system cannot let it grow, it is replaced if no living process has it open. False, after one
    // log line, when it fails: error() says why, and an object that was not empty stays.
    bool open(const std::string& name, unsigned int capacity, bool create);
    enum class Growth {
        Done,
        NotLarger,  // the object has no more than is mapped
        Refused,    // the system has no memory or address space for it; the old mapping stays
    };
    // Maps it anew at the size that the object has by now.
    Growth growToObject();
    // False when the system refused to close the descriptor. The mapping is gone in either case.
    bool close();

    bool isOpen() const { return m_address != nullptr; }
    // Why the last open() failed.
    const OpenError& error() const { return m_error; }
    // Null unless open.
    SharedMemoryHeader* header() const { return static_cast<SharedMemoryHeader*>(m_address); }
    char* data() const { return static_cast<char*>(m_address) + sizeof(SharedMemoryHeader); }
    // Bytes of the data area as mapped: at least as many as open() was asked for.
    unsigned int capacity() const { return m_capacity; }

    enum class State {
        Whole,    // the object covers the mapping
        Grown,    // and more than it
        Shrunk,   // another process has cut it: touching what is cut off would end this process
        Removed,  // its name has been removed from the system: a newcomer would meet another object
    };
    // One system call.
    State look() const;

    // Removes the object of that name from the system. What has it mapped keeps it.
    static bool remove(const std::string& name);
    // The prefix of the client type, and `name`.
    static std::string prefixed(const std::string& name);
    // Bytes of the object of a segment with a data area of `capacity` bytes.
    static unsigned int sizeFor(unsigned int capacity);

private:
    enum class Sized { Yes, No, Again };

    bool openObject(const std::string& name, bool create);
    Sized size(const std::string& name, unsigned int totalSize, bool create);
    bool map(const std::string& name, bool create);
    void fail(OpenFailure failure, int error);

    std::string m_objectName;
    VDIFrameworkCommon::FileDescriptor m_file;
    void* m_address = nullptr;
    unsigned int m_mappedSize = 0;
    unsigned int m_capacity = 0;
    OpenError m_error;
};

}  // namespace shared_memory
