#pragma once

#include <string>

#include "AgentView.h"
#include "LocalMutex.h"
#include "SegmentSlot.h"
#include "SlotReader.h"
#include "SlotWriter.h"

namespace NorvoStreamClient {

// One end of a plain segment. A write has a deadline, and the writer can tell whether the reader
// has taken everything. Thread-safe; reads and writes take turns.
class StreamSegment {
public:
    StreamSegment() = default;
    ~StreamSegment() { Close(); }
    StreamSegment(const StreamSegment&) = delete;
    StreamSegment& operator=(const StreamSegment&) = delete;

    using Claim = shared_memory::SegmentSlot::Claim;
    // As SharedMemoryI. Close ends a write or read on another thread.
    bool Create(const std::string& name, unsigned int capacity, Claim claim);
    bool Open(const std::string& name, unsigned int capacity, Claim claim);
    shared_memory::OpenError openError();
    void Close();

    // Gives up at `deadline`, or when a chunk has waited 2000 ms for the reader; up to 2000 ms
    // later while another process holds the segment's mutex.
    bool write(const void* data, unsigned int length, Clock::time_point deadline);
    // Waits up to `timeout` ms for a message. Empty, with `length` 0, when none arrived.
    std::string ReadData(unsigned int& length, unsigned int timeout);

    // True while no chunk is waiting; also when the segment is closed.
    bool isDrained();

private:
    shared_memory::SlotGate m_gate;
    VDIFrameworkCommon::LocalMutex m_mutex;
    shared_memory::SegmentSlot m_slot NORVO_GUARDED_BY(m_mutex){m_gate};
    shared_memory::SlotWriter m_writer NORVO_GUARDED_BY(m_mutex){m_slot};
    shared_memory::SlotReader m_reader NORVO_GUARDED_BY(m_mutex){m_slot};
};

}  // namespace NorvoStreamClient
