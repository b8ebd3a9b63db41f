#include "PacketLink.h"

#include <cerrno>
#include <cstring>

#include "PacketHeader.h"
#include "PacketSplitter.h"

namespace vcctl {

using VDIFrameworkCommon::LocalLock;

namespace {

// Large enough to spread the cost of a system call over many packets, small enough that the peer
// can process the first part of a long message while the rest is in flight.
constexpr std::size_t kGathered = 32u << 10;

// A message's packets leave in reverse order of sequence, and all but the first to leave are of the
// same size. How many bytes of the message follow this packet.
std::size_t bytesToFollow(const unsigned char* packet, std::uint32_t length) {
    NorvoVirtualChannel::Header header;
    if (length < sizeof header) return 0;
    std::memcpy(&header, packet, sizeof header);
    return header.sequence > 1 ? (header.sequence - std::size_t{1}) * length : 0;
}

}  // namespace

PacketLink::PacketLink(std::unique_ptr<ByteChannel> bytes, std::uint32_t maxPacket,
                       Receiver receive)
    : m_bytes(std::move(bytes)),
      m_reader([this, maxPacket, receive = std::move(receive)] { readLoop(maxPacket, receive); }) {}

PacketLink::~PacketLink() { end("closed"); }

bool PacketLink::send(const void* packet, std::uint32_t length) {
    const auto* bytes = static_cast<const unsigned char*>(packet);
    if (m_closed) return false;
    m_gathered.insert(m_gathered.end(), bytes, bytes + length);
    const std::size_t rest = bytesToFollow(bytes, length);
    // A short rest is sent with it, to save a system call.
    const bool waits = rest > 0 && (m_gathered.size() < kGathered || rest < kGathered / 2) &&
                       m_gathered.size() < 2 * kGathered;
    return waits || sendGathered();
}

bool PacketLink::sendGathered() {
    for (std::size_t done = 0; done < m_gathered.size();) {
        const ssize_t sent = m_bytes->write(m_gathered.data() + done, m_gathered.size() - done);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) {
            close(std::string("the other end is gone: ") + std::strerror(errno));
            return false;
        }
        done += static_cast<std::size_t>(sent);
    }
    m_gathered.clear();
    return true;
}

void PacketLink::close(const std::string& reason) {
    {
        LocalLock lock(m_mutex);
        if (m_closed) return;
        m_closed = true;
        m_reason = reason;
    }
    m_bytes->interrupt();
}

void PacketLink::end(const std::string& reason) {
    close(reason);
    if (m_reader.joinable()) m_reader.join();
}

std::string PacketLink::closeReason() const {
    LocalLock lock(m_mutex);
    return m_reason;
}

void PacketLink::readLoop(std::uint32_t maxPacket, const Receiver& receive) {
    hosts::PacketSplitter splitter(maxPacket);
    while (!m_closed) {
        const auto room = splitter.room();
        const ssize_t got = m_bytes->read(room.data(), room.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0)
            return close(got == 0 ? "the other end closed the connection"
                                  : std::string("the connection broke: ") + std::strerror(errno));
        splitter.take(static_cast<std::size_t>(got),
                      [&](unsigned char* packet, std::uint32_t length) {
                          if (splitter.skipped() == 0 && !m_closed) receive(packet, length);
                      });
        m_sawForeignBytes = splitter.skipped() > 0;
        if (m_sawForeignBytes)
            close("received what is no packet: the other end is not a host of this kind");
    }
}

}  // namespace vcctl
