#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <span>

#include "Packets.h"
#include "WorkerThread.h"

namespace NorvoVirtualChannel::tc {

// One wire packet on its way to the host.
class DataWorker final : public WorkObject {
public:
    // Copies the `size` bytes at `data`. `verbose` is the flag passed to the host with them;
    // `packetId` is only traced.
    DataWorker(const void* data, unsigned int size, bool verbose, int packetId);
    // Takes ownership of a valid packet and sends it without a copy.
    DataWorker(std::unique_ptr<Packet> packet, bool verbose);
    ~DataWorker() override;
    // The same, made in the packet's room if it has one.
    static WorkItem carrying(std::unique_ptr<Packet> packet, bool verbose);
    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* memory) { ::operator delete(memory); }
    static void operator delete(DataWorker* worker, std::destroying_delete_t);

    // Passes the bytes once to the host's append callback if the outgoing gate is open. Returns 0.
    int DoWork() override;

private:
    void traceMaking(int packetId) const;

    std::unique_ptr<Packet> m_packet;
    const std::unique_ptr<std::byte[]> m_copy;
    const std::span<const std::byte> m_bytes;
    const bool m_verbose;
};

}  // namespace NorvoVirtualChannel::tc
