#include "DataWorkers.h"

#include <cstring>
#include <new>
#include <utility>

#include "CellPool.h"
#include "HostCallbacks.h"
#include "Log.h"

namespace NorvoVirtualChannel::tc {

namespace {

std::unique_ptr<std::byte[]> copyOf(const void* data, unsigned int size) {
    auto copy = std::make_unique_for_overwrite<std::byte[]>(size);
    if (size) std::memcpy(copy.get(), data, size);
    return copy;
}

using Cells = VDIFrameworkCommon::CellPool<64, 1024>;
constinit Cells g_cells;

}  // namespace

void* DataWorker::operator new(std::size_t) {
    static_assert(sizeof(DataWorker) <= Cells::kCellSize);
    void* const memory = g_cells.allocate();
    if (!memory) throw std::bad_alloc();
    return memory;
}

void DataWorker::operator delete(void* memory) { g_cells.release(memory); }

DataWorker::DataWorker(const void* data, unsigned int size, bool verbose, int packetId)
    : m_copy(copyOf(data, size)), m_bytes(m_copy.get(), size), m_verbose(verbose) {
    traceMaking(packetId);
}

DataWorker::DataWorker(std::unique_ptr<Packet> packet, bool verbose)
    : m_packet(std::move(packet)), m_bytes(m_packet->WireBytes()), m_verbose(verbose) {
    traceMaking(static_cast<int>(m_packet->GetPacketID()));
}

DataWorker::~DataWorker() { NORVO_LOG(Trace, "DataWorker::~DataWorker()"); }

void DataWorker::traceMaking(int packetId) const {
    NORVO_LOG(Trace, "DataWorker::DataWorker( ", static_cast<const void*>(m_bytes.data()), ", ",
              m_bytes.size(), ", ", m_verbose, ", ", packetId, ")");
}

int DataWorker::DoWork() {
    NORVO_LOG(Trace, "DataWorker::DoWork()");
    return static_cast<int>(HostCallbacks::GetInstance().appendData(
        m_bytes.data(), static_cast<std::uint32_t>(m_bytes.size()), m_verbose));
}

}  // namespace NorvoVirtualChannel::tc
