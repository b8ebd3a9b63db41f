// The packet layer: cuts messages into packets of at most the transport's size and reassembles
// received ones. Wire format: PacketHeader.h.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <new>
#include <span>

#include "LocalMutex.h"
#include "PacketHeader.h"
#include "PendingMessages.h"
#include "SplitBytes.h"

namespace NorvoVirtualChannel {

class PacketBlock;

// One packet. If it cannot be built or parsed, it logs why and is invalid: drop it. Not
// synchronised: one thread at a time.
//
// A packet's bytes are contiguous, as on the wire, so it can be sent without a copy (`WireBytes`).
// Packets cut from one message share a heap block, which is freed with the last of them. They are
// deleted one by one like any others, on any thread.
class Packet {
public:
    static void* operator new(std::size_t size);
    static void operator delete(void* memory);
    static void operator delete(Packet* packet, std::destroying_delete_t);

    // Builds a packet to send; copies `header.payloadSize` bytes of payload. A payload of 0 bytes
    // is valid, a null payload of more is not.
    Packet(Header header, const void* payload);
    // Parses the `length` bytes of one received packet and copies them. Null or fewer than 24 bytes
    // is a broken packet.
    Packet(const void* raw, unsigned int length);
    // The same without a copy: `raw` must outlive the packet.
    static Packet Borrow(const void* raw, unsigned int length);

    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;

    // Sets the versions to 91 and all other header fields but the message size to 0. Payload and
    // `WireBytes` are unchanged.
    void Initialise();
    // A new packet with the same header and a copy of the payload, validated again. Owned by the
    // caller.
    Packet* CopyPacket() const;

    bool isPacketValid() const { return m_payload != nullptr; }
    std::uint32_t GetPacketSize() const { return m_header.payloadSize + kPacketHeaderSize; }
    std::uint32_t GetPayloadSize() const { return m_header.payloadSize; }
    std::uint32_t GetTotalPackets() const { return m_header.totalPackets; }
    std::uint32_t GetPacketSequence() const { return m_header.sequence; }
    std::uint32_t GetPacketID() const { return m_header.packetId; }
    std::uint32_t GetMessageSize() const { return m_header.messageSize; }

    // Copies the payload to `out`, unless that is null, and returns its size; 0 when invalid.
    std::uint32_t GetPayloadData(void* out) const;
    // Copies header and payload, `GetPacketSize()` bytes, to `out`, unless that is null. Returns
    // the message size field (for a packet of a split message, more than was written); 0 when
    // invalid.
    std::uint32_t GetPacketData(void* out) const;

    // Views of the packet's wire bytes, or of the payload alone; empty when invalid. Valid as long
    // as the packet (and, when borrowed, the received bytes).
    std::span<const std::byte> WireBytes() const;
    std::span<const std::byte> Payload() const {
        return {m_payload, m_payload ? GetPayloadSize() : 0};
    }

    // Memory of `kRoom` bytes for whatever carries a packet that a MessageFragmenter made, aligned
    // for any type; as long-lived as the packet. Null with other packets.
    static constexpr std::size_t kRoom = 48;
    void* room() { return m_block ? this + 1 : nullptr; }

    // Orders packets of one message: true when a's sequence is less than b's, as signed numbers.
    static bool PacketSort(const Packet* a, const Packet* b);

private:
    friend class MessageFragmenter;
    friend class Packetization;
    struct BorrowTag {};
    Packet(BorrowTag, const void* raw, unsigned int length);
    // One packet of a block, with its bytes at `wire`: the caller writes the payload behind the
    // header. `common` is the header without sequence and payload size. The arguments come from the
    // packetizer and are not validated.
    Packet(const Header& common, std::uint32_t sequence, std::uint32_t payloadSize,
           PacketBlock& block, std::byte* wire);
    // Checks received bytes and fills the header as far as it is valid.
    bool parse(const void* raw, unsigned int length);
    void store(const void* payload);

    Header m_header;
    const std::byte* m_payload = nullptr;  // within m_own, m_block or the received bytes
    std::unique_ptr<std::byte[]> m_own;    // its own copy, if any
    PacketBlock* m_block = nullptr;        // the block that holds this packet, if any
};

// Receives whole messages.
class PacketizationObserver {
public:
    // `data` is never null, and valid during the call only. Called with the packetizer's mutex
    // held: do not call the receiving operations of the same packetizer.
    virtual void OnFullPacketReceived(const void* data, unsigned int size) = 0;
    virtual ~PacketizationObserver() = default;
};

// Hands out message IDs. Thread-safe.
class UIDGenerator {
public:
    // The process-wide generator, made on first use. Its first ID is the time then in seconds since
    // the epoch, plus 1.
    static UIDGenerator* GetInstance();
    // The next ID; wraps around to 0 after the largest.
    unsigned int GetNextUID();

    // A separate generator, whose first ID is `last` + 1.
    explicit UIDGenerator(unsigned int last) : m_last(last) {}

private:
    std::atomic<unsigned int> m_last;
};

// Cuts one outgoing message into packets, one by one, from the last to the first. One thread at a
// time.
class MessageFragmenter {
public:
    // Takes the next message ID. The message must stay unchanged until everything has been cut.
    // `maxPacketSize` includes the header. A message longer than 2 GiB - 25, null with a length, or
    // without room for payload in a packet yields no packets.
    MessageFragmenter(const VDIFrameworkCommon::SplitBytes& message, int maxPacketSize);
    MessageFragmenter(const void* data, unsigned int length, int maxPacketSize);
    ~MessageFragmenter();
    MessageFragmenter(const MessageFragmenter&) = delete;
    MessageFragmenter& operator=(const MessageFragmenter&) = delete;

    std::uint32_t total() const { return m_total; }
    std::uint32_t remaining() const { return m_remaining; }
    // The next packet; empty when there is none left. Throws std::bad_alloc, and may then be called
    // again.
    std::unique_ptr<Packet> next();

private:
    void beginBlock();

    const VDIFrameworkCommon::SplitBytes m_message;
    const std::uint32_t m_length;
    const std::uint32_t m_payloadMax;
    const std::uint32_t m_total;
    const std::uint32_t m_id;
    std::uint32_t m_remaining;
    // Where the next packets are built.
    PacketBlock* m_block = nullptr;
    std::byte* m_wire = nullptr;
    std::uint32_t m_built = 0;
    std::uint32_t m_places = 0;
};

// Cuts and joins the messages of one channel.
//
// Sending: any number of threads at once. Receiving: meant for one thread; calls from several are
// serialised.
//
// An incomplete message is kept until its packets have arrived, however long that takes, or until
// `ForgetIncompleteMessages()`. It uses memory in proportion to what has arrived, not to what its
// headers announce; one message at a time may use more, if that memory is there already. A message
// is complete when as many packets have arrived as its first one announced. Duplicates are counted,
// not detected; the size check at the end catches them. Only the message of the packet just queued
// can be complete, so the cost of a packet does not depend on how many other messages are open.
class Packetization {
public:
    // `observer` is not owned and outlives this object. `maxPacketSize` includes the header.
    Packetization(PacketizationObserver* observer, int maxPacketSize);
    ~Packetization();
    Packetization(const Packetization&) = delete;
    Packetization& operator=(const Packetization&) = delete;

    std::uint32_t GetMaxPayloadSize() const;

    // Cuts a message into packets and puts each at the FRONT of `out`: the message's last packet
    // comes first, what `out` held before follows its first. The packets belong to the caller.
    // Returns the new size of `out`. Adds nothing for an invalid message (MessageFragmenter).
    std::uint32_t PacketizeData(const void* data, unsigned int length, std::deque<Packet*>& out);

    // Takes one valid packet, which stays the caller's, and delivers the message that it completes,
    // if any, before it returns. The payload of an unsplit message is delivered without a copy.
    // That of a split one is copied once if its packets come in rising or falling order.
    void EnqueuePacket(const Packet* packet) NORVO_EXCLUDES(m_Mutex);
    // Delivers what is complete. `EnqueuePacket` does so itself.
    void ReassemblePackets() NORVO_EXCLUDES(m_Mutex);
    // The memory of the message that is being delivered: its bytes stay where they are, and are the
    // caller's from then on. Empty when it has none of its own, as a message of one packet. Only
    // from inside `OnFullPacketReceived`, on its thread.
    VDIFrameworkCommon::MemoryBlock TakeMemory();
    // Discards all packets taken so far: a restarted sender numbers its messages from the clock
    // again, and its packets must not complete messages of its predecessor. Any thread, also from
    // inside `OnFullPacketReceived`. The memory is freed with the next packet at the latest.
    void ForgetIncompleteMessages() { m_forget = true; }
    // The same, and frees the memory at once unless another thread is inside `EnqueuePacket`. Not
    // from inside `OnFullPacketReceived`.
    void freeIncompleteMessages();

private:
    void deliverUnsplit(const Packet& packet) NORVO_REQUIRES(m_Mutex);
    void queue(const Packet& packet) NORVO_REQUIRES(m_Mutex);
    PendingMessage& findOrBegin(const Packet& packet) NORVO_REQUIRES(m_Mutex);
    void reassemble() NORVO_REQUIRES(m_Mutex);
    void deliver(PendingMessage& message) NORVO_REQUIRES(m_Mutex);
    void finish(PendingMessage& message) NORVO_REQUIRES(m_Mutex);
    void forgetIfAsked() NORVO_REQUIRES(m_Mutex);

    const int m_maxPacketSize;
    VDIFrameworkCommon::LocalMutex m_Mutex;
    PacketizationObserver* const m_observer NORVO_PT_GUARDED_BY(m_Mutex);
    PendingMessages m_pending NORVO_GUARDED_BY(m_Mutex);
    // The message that the last packet was added to, the only one that can be complete.
    PendingMessage* m_latest NORVO_GUARDED_BY(m_Mutex) = nullptr;
    // The message that is being delivered; used by the delivering thread only.
    PendingMessage* m_delivered = nullptr;
    // Not guarded, as a delivery holds the mutex: a request from inside it takes effect after it.
    std::atomic<bool> m_forget{false};
};

}  // namespace NorvoVirtualChannel
