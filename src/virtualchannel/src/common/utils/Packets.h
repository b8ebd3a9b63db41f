// The packet layer: messages are cut into packets of at most the transport's size, and put together
// again at the other end.
//
// A packet on the wire is a 24-byte header and the payload behind it:
//
//     offset  width  field
//          0      2  secondary version, written as 91, any value accepted
//          2      2  protocol version, 91
//          4      4  sequence: 1-based place of the packet within its message
//          8      4  total packets of the message
//         12      4  packet ID: the message's ID, the same in all of its packets
//         16      4  payload size: bytes behind this header
//         20      4  message size: bytes of the whole message + 24, the same in all of its packets
//
// All integers are little-endian and copied as the machine holds them.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>

#include "LocalMutex.h"
#include "PendingMessage.h"
#include "SharedBytes.h"

namespace NorvoVirtualChannel {

static_assert(std::endian::native == std::endian::little);

struct Header {
    static constexpr std::uint16_t kVersion = 0x5B;

    std::uint16_t secondaryVersion = kVersion;
    std::uint16_t protocolVersion = kVersion;
    std::uint32_t sequence = 0;
    std::uint32_t totalPackets = 0;
    std::uint32_t packetId = 0;
    std::uint32_t payloadSize = 0;
    std::uint32_t messageSize = 0;
};
static_assert(offsetof(Header, protocolVersion) == 2 && offsetof(Header, sequence) == 4 &&
              offsetof(Header, totalPackets) == 8 && offsetof(Header, packetId) == 12 &&
              offsetof(Header, payloadSize) == 16 && offsetof(Header, messageSize) == 20 &&
              sizeof(Header) == 24);

inline constexpr std::uint32_t kPacketHeaderSize = sizeof(Header);

// One packet. A packet that cannot be built or parsed logs why and is invalid: drop it. Not
// synchronised: one thread at a time.
//
// The bytes of a packet lie together as they go on the wire, so that it can be sent from where it
// is (`WireBytes`); all packets that one message was cut into may share one heap block, which goes
// with the last of them.
class Packet {
public:
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
    friend class Packetization;
    struct BorrowTag {};
    Packet(BorrowTag, const void* raw, unsigned int length);
    // Writes a packet into `storage` at `wire`, where there is room for it. The arguments are the
    // packetizer's own and not validated.
    Packet(const Header& header, const std::byte* payload, VDIFrameworkCommon::SharedBytes storage,
           std::byte* wire);
    // The checks on received bytes; fills the header as far as it is sound.
    bool parse(const void* raw, unsigned int length);
    void store(const void* payload);

    Header m_header;
    const std::byte* m_payload = nullptr;  // within m_storage or, when borrowed, received bytes
    VDIFrameworkCommon::SharedBytes m_storage;  // empty when borrowed or invalid
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
    static VDIFrameworkCommon::LocalMutex m_Mutex;
    static UIDGenerator* m_pInstance NORVO_GUARDED_BY(m_Mutex);
    unsigned int m_last NORVO_GUARDED_BY(m_Mutex);
};

// Cuts and joins the messages of one channel.
//
// Sending: any number of threads at once. Receiving: meant for one thread; calls from several are
// taken one after the other.
//
// An incomplete message is kept until its packets are there, however long that takes; it uses
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
    // be cut: longer than 2 GiB - 25, null with a length, or with no room for payload in a packet.
    std::uint32_t PacketizeData(const void* data, unsigned int length, std::deque<Packet*>& out);

    // Takes in one valid packet, which stays the caller's, and delivers the message that it
    // completes, if any, before it returns. The payload of an unsplit message is delivered from
    // where it lies; that of a split one is copied once, unless its packets come in neither rising
    // nor falling order.
    void EnqueuePacket(const Packet* packet) NORVO_EXCLUDES(m_Mutex);
    // Delivers what is complete. `EnqueuePacket` does so itself.
    void ReassemblePackets() NORVO_EXCLUDES(m_Mutex);

private:
    using Table = std::map<std::int32_t, PendingMessage>;

    std::uint32_t packetsNeeded(const void* data, unsigned int length) const;
    void deliverUnsplit(const Packet& packet) NORVO_REQUIRES(m_Mutex);
    Table::iterator findOrAdd(const Packet& packet) NORVO_REQUIRES(m_Mutex);
    void reassemble() NORVO_REQUIRES(m_Mutex);
    void deliver(std::int32_t id, PendingMessage& message) NORVO_REQUIRES(m_Mutex);
    void erase(Table::iterator entry) NORVO_REQUIRES(m_Mutex);

    const int m_maxPacketSize;
    VDIFrameworkCommon::LocalMutex m_Mutex;
    PacketizationObserver* const m_observer NORVO_PT_GUARDED_BY(m_Mutex);
    Table m_table NORVO_GUARDED_BY(m_Mutex);
    // The entry of the latest packet, or end(): the next packet is most likely one of the same
    // message, and no other entry can be complete.
    Table::iterator m_latest NORVO_GUARDED_BY(m_Mutex);
    // The memory of a message that is done with, for the next one to begin, and which message that
    // is. There is no second spare while that message is open: otherwise large messages, each with
    // the beginning of another one behind it, could pile up blocks that hold next to nothing.
    Table::node_type m_spare NORVO_GUARDED_BY(m_Mutex);
    std::optional<std::int32_t> m_spareHolder NORVO_GUARDED_BY(m_Mutex);
};

}  // namespace NorvoVirtualChannel
