// The packet layer: messages are cut into packets of at most the transport's size, and put together
// again at the other end.
// The bytes of a packet: PacketHeader.h.
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

namespace NorvoVirtualChannel {

class PacketBlock;

// One packet. A packet that cannot be built or parsed logs why and is invalid: drop it. Not
// synchronised: one thread at a time.
//
// The bytes of a packet lie together as they go on the wire, so that it can be sent from where it
// is (`WireBytes`). The packets that one message was cut into lie with their bytes in one heap
// block, which goes with the last of them: they are deleted like any others, one by one and on any
// threads.
class Packet {
public:
    static void* operator new(std::size_t size);
    static void operator delete(void* memory);
    static void operator delete(Packet* packet, std::destroying_delete_t);

    // Builds a packet to send; copies `header.payloadSize` bytes of payload. A payload of 0 bytes
    // is valid, a null payload of more is not.
    Packet(Header header, const void* payload);
    // Parses the `length` bytes of one received packet and copies them. Fewer than 24 bytes, or
    // none at all (null), are a broken packet.
    Packet(const void* raw, unsigned int length);
    // Parses them in the same way without a copy: `raw` must outlive the packet.
    static Packet Borrow(const void* raw, unsigned int length);

    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;

    // Versions 91, all counters 0; the message size and the payload stay as they are, and so do
    // `WireBytes`.
    void Initialise();
    // A packet of its own with the same header and a copy of the payload, validated again. Owned by
    // the caller.
    Packet* CopyPacket() const;

    bool isPacketValid() const { return m_payload != nullptr; }
    std::uint32_t GetPacketSize() const { return m_header.payloadSize + kPacketHeaderSize; }
    std::uint32_t GetPayloadSize() const { return m_header.payloadSize; }
    std::uint32_t GetTotalPackets() const { return m_header.totalPackets; }
    std::uint32_t GetPacketSequence() const { return m_header.sequence; }
    std::uint32_t GetPacketID() const { return m_header.packetId; }
    std::uint32_t GetMessageSize() const { return m_header.messageSize; }

    // Copies the payload to `out`, when that is not null, and returns its size; 0 when invalid.
    std::uint32_t GetPayloadData(void* out) const;
    // Copies header and payload, `GetPacketSize()` bytes, to `out`, when that is not null. Returns
    // the message size field, which is more than was written for a packet of a split message; 0
    // when invalid.
    std::uint32_t GetPacketData(void* out) const;

    // The packet as it goes on the wire, or the payload alone, where they lie; empty when invalid.
    // Valid while the packet (and, when borrowed, the received bytes) is.
    std::span<const std::byte> WireBytes() const;
    std::span<const std::byte> Payload() const {
        return {m_payload, m_payload ? GetPayloadSize() : 0};
    }

    // Orders the packets of one message: a's sequence is less than b's, as signed numbers.
    static bool PacketSort(const Packet* a, const Packet* b);

private:
    friend class MessageCutter;
    friend class Packetization;
    struct BorrowTag {};
    Packet(BorrowTag, const void* raw, unsigned int length);
    // One packet of a block, whose place for the bytes begins at `wire`. `common` is the header but
    // for sequence and payload size. The arguments are the packetizer's own and not validated.
    Packet(const Header& common, std::uint32_t sequence, std::span<const std::byte> payload,
           PacketBlock& block, std::byte* wire);
    // The checks on received bytes; fills the header as far as it is sound.
    bool parse(const void* raw, unsigned int length);
    void store(const void* payload);

    Header m_header;
    const std::byte* m_payload = nullptr;  // within m_own, m_block or the received bytes
    std::unique_ptr<std::byte[]> m_own;    // what it has copied on its own
    PacketBlock* m_block = nullptr;        // the block that this packet lies in, if any
};

// Gets whole messages.
class PacketizationObserver {
public:
    // `data` is never null, and valid during the call only. Called with the packetizer's mutex
    // held: must not call back into the same packetizer's receiving side.
    virtual void OnFullPacketReceived(const void* data, unsigned int size) = 0;
    virtual ~PacketizationObserver() = default;
};

// Hands out message IDs. Thread-safe.
class UIDGenerator {
public:
    // The process-wide generator, made on first use; its first ID is the seconds since the epoch
    // at that time + 1.
    static UIDGenerator* GetInstance();
    // The next ID; goes on at 0 after the largest.
    unsigned int GetNextUID();

    // A generator of its own, whose first ID is `last` + 1.
    explicit UIDGenerator(unsigned int last) : m_last(last) {}

private:
    std::atomic<unsigned int> m_last;
};

// One message on its way out, cut into packets one by one, from its last packet to its first. One
// thread at a time.
class MessageCutter {
public:
    // Takes the next message ID. `data` must stay as it is until everything has been cut.
    // `maxPacketSize` includes the header. There is nothing to cut of a message that cannot be:
    // longer than 2 GiB - 25, null with a length, or with no room for payload in a packet.
    MessageCutter(const void* data, unsigned int length, int maxPacketSize);
    ~MessageCutter();
    MessageCutter(const MessageCutter&) = delete;
    MessageCutter& operator=(const MessageCutter&) = delete;

    std::uint32_t total() const { return m_total; }
    std::uint32_t remaining() const { return m_remaining; }
    // The next packet; empty when there is none left. Throws std::bad_alloc, and may then be called
    // again.
    std::unique_ptr<Packet> next();

private:
    void beginBlock();

    const std::byte* const m_data;
    const unsigned int m_length;
    const std::uint32_t m_payloadMax;
    const std::uint32_t m_total;
    const std::uint32_t m_id;
    std::uint32_t m_remaining;
    // Where the next packets are built: as many of the block's places are left.
    PacketBlock* m_block = nullptr;
    std::byte* m_wire = nullptr;
    std::uint32_t m_built = 0;
    std::uint32_t m_places = 0;
};

// Cuts and joins the messages of one channel.
//
// Sending: any number of threads at once. Receiving: meant for one thread; calls from several are
// taken one after the other.
//
// An incomplete message is kept until its packets are there, however long that takes, or until
// `ForgetIncompleteMessages()`; it uses
// memory in proportion to what has arrived, not to what its headers announce. A message counts as
// complete when as many packets have arrived as its first one announced. Duplicates are not
// recognised: they count, and the size check at the end is what stops them. So only the message of
// the packet just queued can ever be complete, and the cost of a packet does not depend on how many
// other messages are open.
class Packetization {
public:
    // `observer` is not owned and outlives this object. `maxPacketSize` includes the header.
    Packetization(PacketizationObserver* observer, int maxPacketSize);
    ~Packetization();
    Packetization(const Packetization&) = delete;
    Packetization& operator=(const Packetization&) = delete;

    std::uint32_t GetMaxPayloadSize() const;

    // Cuts a message into packets, each put at the FRONT of `out`, so that the last packet of the
    // message comes first; what `out` held before stays behind them. The packets belong to the
    // caller. Returns how many entries `out` then has. Nothing is added for a message that cannot
    // be cut (MessageCutter).
    std::uint32_t PacketizeData(const void* data, unsigned int length, std::deque<Packet*>& out);

    // Takes in one valid packet, which stays the caller's, and delivers the message that it
    // completes, if any, before it returns. The payload of an unsplit message is delivered from
    // where it lies; that of a split one is copied once, unless its packets come in neither rising
    // nor falling order.
    void EnqueuePacket(const Packet* packet) NORVO_EXCLUDES(m_Mutex);
    // Delivers what is complete. `EnqueuePacket` does so itself.
    void ReassemblePackets() NORVO_EXCLUDES(m_Mutex);
    // No packet taken in so far counts any more: a sender that starts anew numbers its messages
    // from the clock again, and its packets must not complete what its predecessor began. Any
    // thread, also from inside `OnFullPacketReceived`. The memory is freed with the next packet at
    // the latest.
    void ForgetIncompleteMessages() { m_forget = true; }

private:
    void deliverUnsplit(const Packet& packet) NORVO_REQUIRES(m_Mutex);
    void queue(const Packet& packet) NORVO_REQUIRES(m_Mutex);
    PendingMessage& findOrBegin(const Packet& packet) NORVO_REQUIRES(m_Mutex);
    void reassemble() NORVO_REQUIRES(m_Mutex);
    void deliver(PendingMessage& message) NORVO_REQUIRES(m_Mutex);
    void forgetIfAsked() NORVO_REQUIRES(m_Mutex);

    const int m_maxPacketSize;
    VDIFrameworkCommon::LocalMutex m_Mutex;
    PacketizationObserver* const m_observer NORVO_PT_GUARDED_BY(m_Mutex);
    PendingMessages m_pending NORVO_GUARDED_BY(m_Mutex);
    // The message that a packet has just been added to, the only one that can be complete.
    PendingMessage* m_latest NORVO_GUARDED_BY(m_Mutex) = nullptr;
    // Without the mutex, which a delivery holds: what the delivered message asks for is done after
    // it.
    std::atomic<bool> m_forget{false};
};

}  // namespace NorvoVirtualChannel
