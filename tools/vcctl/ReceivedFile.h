#pragma once

#include <cstdint>
#include <string>

#include "Descriptor.h"
#include "File.h"
#include "TransferTally.h"

namespace vcctl {

// Where vcctl recv writes: a file, or standard output for "-".
//
// A file grows beside its target, as TARGET.part, and replaces the target once it is complete and
// on disk, with that one's permissions. A target that is not a regular file (a device, a FIFO) is
// written to directly. Failures are CommandErrors.
class ReceivedFile {
public:
    enum class Kind {
        Part,      // a part file; an existing one is kept until begin()
        KeptPart,  // continues an existing part file
        Direct,    // no part file: the data may have no end. Kept until the first write()
    };
    ReceivedFile(const std::string& target, Kind kind);
    // Removes an empty part file.
    ~ReceivedFile();
    ReceivedFile(const ReceivedFile&) = delete;
    ReceivedFile& operator=(const ReceivedFile&) = delete;

    // The sender is there: what an earlier transfer left is emptied, unless it is to be continued.
    void begin();
    // Bytes in the part file.
    std::uint64_t size() const;
    // Adds the part file's bytes to `tally`.
    void count(TransferTally& tally) const;
    // Starts over: empties the part file.
    void clear();

    void write(const char* data, std::size_t length);
    // Passes buffered data to the system.
    void flush();
    // Syncs the file to disk and gives it its final name.
    void commit();

    // How to continue after a failure; empty when nothing is kept.
    std::string advice() const;

private:
    bool isPart() const { return !m_part.empty(); }
    void check(bool done) const;
    void openPart();
    void openTarget();
    void syncFolder() const;
    void writeBack();

    const std::string m_target;  // with its symbolic links resolved
    std::string m_part;          // empty when the target is written to directly
    support::Descriptor m_lock;
    File m_owned;
    std::FILE* m_file = nullptr;
    bool m_isFormer = false;  // holds what was there before
    bool m_committed = false;
    std::uint64_t m_unwritten = 0;    // bytes since the last writeBack()
    std::uint64_t m_writtenBack = 0;  // the offset up to which write-back was started
};

}  // namespace vcctl
