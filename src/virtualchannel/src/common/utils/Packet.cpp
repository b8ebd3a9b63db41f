#include <cstring>

#include "Log.h"
#include "PacketBlock.h"
#include "Packets.h"

namespace NorvoVirtualChannel {

namespace {

// Compared without a sum, which could wrap.
bool payloadExceedsMessage(const Header& header) {
    return header.messageSize < kPacketHeaderSize ||
           header.payloadSize > header.messageSize - kPacketHeaderSize;
}

}  // namespace

Packet::Packet(Header header, const void* payload) : m_header(header) {
    if (header.protocolVersion != Header::kVersion) {
        NORVO_LOG(Error, "Invalid version of the protocol specified in header (",
                  header.protocolVersion, ")");
    } else if (payloadExceedsMessage(header)) {
        NORVO_LOG(Warning, "The packet size information is incorrect.");
    } else if (!payload && header.payloadSize > 0) {
        NORVO_LOG(Warning, "The payload is NULL.");
    } else {
        store(payload);
    }
}

Packet::Packet(const void* raw, unsigned int length) {
    if (parse(raw, length)) store(static_cast<const std::byte*>(raw) + kPacketHeaderSize);
}

Packet::Packet(BorrowTag, const void* raw, unsigned int length) {
    if (parse(raw, length)) m_payload = static_cast<const std::byte*>(raw) + kPacketHeaderSize;
}

void* Packet::operator new(std::size_t size) { return ::operator new(size); }

void Packet::operator delete(void* memory) { ::operator delete(memory); }

void Packet::operator delete(Packet* packet, std::destroying_delete_t) {
    PacketBlock* const block = packet->m_block;
    packet->~Packet();
    if (block) {
        block->release();
    } else {
        ::operator delete(packet);
    }
}

Packet Packet::Borrow(const void* raw, unsigned int length) {
    return Packet(BorrowTag{}, raw, length);
}

bool Packet::parse(const void* raw, unsigned int length) {
    NORVO_LOG(Trace, "Retreiving the header from the packet.");
    if (!raw || length < kPacketHeaderSize) {
        NORVO_LOG_SUMMED_UP(Warning, "Broken packet received. Ignoring it!");
        return false;
    }
    std::uint16_t protocolVersion = 0;
    std::memcpy(&protocolVersion,
                static_cast<const std::byte*>(raw) + offsetof(Header, protocolVersion),
                sizeof protocolVersion);
    if (protocolVersion != Header::kVersion) {
        NORVO_LOG_SUMMED_UP(
            Error, "Packet belongs to an incompatible version of the protocol and cannot be used.");
        return false;
    }
    std::memcpy(&m_header, raw, kPacketHeaderSize);
    NORVO_LOG(Trace, "Retrieving the data from the packet.");
    if (m_header.payloadSize != length - kPacketHeaderSize) {
        NORVO_LOG_SUMMED_UP(Warning, "Broken packet received. Ignoring it!");
        return false;
    }
    if (payloadExceedsMessage(m_header)) {
        NORVO_LOG_SUMMED_UP(Warning, "The packet size information is incorrect.");
        return false;
    }
    return true;
}

void Packet::store(const void* payload) {
    m_own.reset(new (std::nothrow)
                    std::byte[std::size_t{kPacketHeaderSize} + m_header.payloadSize]);
    if (!m_own) {
        NORVO_LOG_SUMMED_UP(Error, "No memory for a packet, payload size: ", m_header.payloadSize);
        return;
    }
    std::byte* const wire = m_own.get();
    std::memcpy(wire, &m_header, kPacketHeaderSize);
    if (m_header.payloadSize > 0)
        std::memcpy(wire + kPacketHeaderSize, payload, m_header.payloadSize);
    m_payload = wire + kPacketHeaderSize;
}

void Packet::Initialise() {
    const std::uint32_t messageSize = m_header.messageSize;
    m_header = Header{};
    m_header.messageSize = messageSize;
}

Packet* Packet::CopyPacket() const { return new Packet(m_header, m_payload); }

std::uint32_t Packet::GetPayloadData(void* out) const {
    if (!m_payload) {
        NORVO_LOG(Warning, "The payload is NULL.");
        return 0;
    }
    if (out && m_header.payloadSize > 0) std::memcpy(out, m_payload, m_header.payloadSize);
    return m_header.payloadSize;
}

std::uint32_t Packet::GetPacketData(void* out) const {
    if (!m_payload) {
        NORVO_LOG(Warning, "The payload is NULL.");
        return 0;
    }
    if (!out) return m_header.messageSize;
    NORVO_LOG(Trace, "Copying the header into the new data structure.");
    std::memcpy(out, &m_header, kPacketHeaderSize);
    NORVO_LOG(Trace, "Copying the payload into the new data structure.");
    if (m_header.payloadSize > 0)
        std::memcpy(static_cast<std::byte*>(out) + kPacketHeaderSize, m_payload,
                    m_header.payloadSize);
    return m_header.messageSize;
}

std::span<const std::byte> Packet::WireBytes() const {
    if (!m_payload) return {};
    std::uint32_t payloadSize = 0;
    const std::byte* const wire = m_payload - kPacketHeaderSize;
    std::memcpy(&payloadSize, wire + offsetof(Header, payloadSize), sizeof payloadSize);
    return {wire, std::size_t{kPacketHeaderSize} + payloadSize};
}

bool Packet::PacketSort(const Packet* a, const Packet* b) {
    return sequenceBefore(a->GetPacketSequence(), b->GetPacketSequence());
}

}  // namespace NorvoVirtualChannel
