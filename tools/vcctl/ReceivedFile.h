#pragma once

#include <cstdint>
#include <string>

#include "Descriptor.h"
#include "File.h"
#include "TransferTally.h"

namespace vcctl {

// Where vcctl recv writes: a file, or standard output for "-".
//
// A file grows beside its target, as TARGET.part, and takes the target's place once it is whole and
// on the disk. A target that is no ordinary file (a device, a FIFO) is written to directly.
// Failures are CommandErrors.
class ReceivedFile {
public:
    enum class Kind {
        Part,      // a new part file
        KeptPart,  // goes on with what is in the part file already
        Direct,    // no part file: what comes has no end
    };
    ReceivedFile(const std::string& target, Kind kind);
    // Removes an empty part file.
    ~ReceivedFile();
    ReceivedFile(const ReceivedFile&) = delete;
    ReceivedFile& operator=(const ReceivedFile&) = delete;

    // What the part file holds.
    std::uint64_t size() const;
    // Adds its bytes to `tally`.
    void count(TransferTally& tally) const;
    // Goes back to the begin.
    void clear();

    void write(const char* data, std::size_t length);
    // Hands what was written to the system.
    void flush();
    // Has it on the disk, and under its name.
    void commit();

    // How to go on after a failure; empty when nothing is kept.
    std::string advice() const;

private:
    bool isPart() const { return !m_part.empty(); }
    void check(bool done) const;
    void openPart(bool keep);
    void syncFolder() const;
    void writeBack();

    const std::string m_target;  // with its symbolic links resolved
    std::string m_part;          // empty when the target is written to directly
    support::Descriptor m_lock;
    File m_owned;
    std::FILE* m_file = nullptr;
    bool m_committed = false;
    std::uint64_t m_unwritten = 0;    // bytes since the last writeBack()
    std::uint64_t m_writtenBack = 0;  // up to where it came
};

}  // namespace vcctl
