// Helpers of the packet tests to build and inspect packets.
#pragma once

#include "Packets.h"
#include "TestSupport.h"

namespace packettest {

using NorvoVirtualChannel::Header;
using NorvoVirtualChannel::Packet;
using NorvoVirtualChannel::Packetization;
using NorvoVirtualChannel::PacketizationObserver;

// A packet as received, with the header's payload size set to that of `payload`.
inline std::string wireOf(Header header, const std::string& payload) {
    header.payloadSize = static_cast<std::uint32_t>(payload.size());
    std::string wire(sizeof header, '\0');
    std::memcpy(wire.data(), &header, sizeof header);
    return wire + payload;
}

// Packet `sequence` of `total` of message `id`, which is `messageLength` bytes long.
inline Header part(std::uint32_t id, std::uint32_t sequence, std::uint32_t total,
                   std::uint32_t messageLength) {
    return {.sequence = sequence,
            .totalPackets = total,
            .packetId = id,
            .messageSize = messageLength + 24};
}

inline std::string textOf(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Bytes with no period that divides a packet's size.
inline std::string pattern(std::size_t length) {
    std::string bytes(length, '\0');
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
    return bytes;
}

using PacketList = std::deque<std::unique_ptr<Packet>>;

inline PacketList cut(Packetization& packetization, const std::string& message) {
    std::deque<Packet*> raw;
    packetization.PacketizeData(message.data(), static_cast<unsigned int>(message.size()), raw);
    PacketList packets;
    for (Packet* packet : raw) packets.emplace_back(packet);
    return packets;
}

struct Receiver : PacketizationObserver {
    void OnFullPacketReceived(const void* data, unsigned int size) override {
        messages.emplace_back(static_cast<const char*>(data), size);
        if (onMessage) onMessage(messages.back());
    }
    std::function<void(const std::string&)> onMessage;
    std::vector<std::string> messages;
};

// Passes on a received packet as a channel does.
inline void receive(Packetization& packetization, const std::string& wire) {
    const Packet packet = Packet::Borrow(wire.data(), static_cast<unsigned int>(wire.size()));
    if (packet.isPacketValid()) packetization.EnqueuePacket(&packet);
}

}  // namespace packettest
