#include "DataWorkers.h"

#include <cstring>
#include <new>
#include <utility>

#include "HostCallbacks.h"
#include "Log.h"

namespace NorvoVirtualChannel::tc {

namespace {

std::unique_ptr<std::byte[]> copyOf(const void* data, unsigned int size) {
    auto copy = std::make_unique_for_overwrite<std::byte[]>(size);
    if (size) std::memcpy(copy.get(), data, size);
    return copy;
}

}  // namespace

WorkItem DataWorker::carrying(std::unique_ptr<Packet> packet, bool verbose) {
    static_assert(sizeof(DataWorker) <= Packet::kRoom);
    void* const room = packet->room();
    if (!room) return std::make_unique<DataWorker>(std::move(packet), verbose);
    return WorkItem(::new (room) DataWorker(std::move(packet), verbose));
}

// In a packet's room its memory ends with the packet's.
void DataWorker::operator delete(DataWorker* worker, std::destroying_delete_t) {
    const std::unique_ptr<Packet> packet = std::move(worker->m_packet);
    const bool isInRoom = packet && packet->room() == worker;
    worker->~DataWorker();
    if (!isInRoom) ::operator delete(worker);
}

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
