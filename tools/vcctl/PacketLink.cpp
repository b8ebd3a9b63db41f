#include "PacketLink.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "CommandError.h"
#include "Endpoint.h"
#include "KeepAlive.h"
#include "PacketHeader.h"

namespace vcctl {

using support::Descriptor;
using VDIFrameworkCommon::LocalLock;

namespace {

constexpr std::size_t kLengthSize = 4;
// Enough that a system call costs little for each packet, little enough that the peer works on the
// first part of a long message while the rest is on its way.
constexpr std::size_t kMostGathered = 32u << 10;
constexpr std::size_t kReadSize = 256u << 10;

std::uint32_t lengthAt(const unsigned char* bytes) {
    std::uint32_t length = 0;
    std::memcpy(&length, bytes, sizeof length);
    return length;
}

// A message's packets leave in the reverse of their sequence.
bool leavesLast(const unsigned char* packet, std::uint32_t length) {
    NorvoVirtualChannel::Header header;
    if (length < sizeof header) return true;
    std::memcpy(&header, packet, sizeof header);
    return header.sequence <= 1;
}

// Of what is sent, no more than this waits in the system for the peer to take it.
void boundWhatWaits(int socket) {
    const int most = kSocketBuffer;
    setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &most, sizeof most);
}

// One whose machine is gone says nothing more, not even that; an idle session does not, either.
void noticeVanishedPeer(int socket) {
    const int on = 1;
    const int seconds = 10;
    const int probes = 3;
    setsockopt(socket, IPPROTO_TCP, kKeepAliveIdle, &seconds, sizeof seconds);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof seconds);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
    setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

}  // namespace

PacketLink::PacketLink(Descriptor socket, Limits limits, Receiver receive)
    : m_limits(limits), m_socket(std::move(socket)) {
    const int on = 1;
    setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    boundWhatWaits(m_socket.get());
    noticeVanishedPeer(m_socket.get());
    int ends[2];
    if (pipe(ends) != 0) throw systemError("cannot make a pipe", errno);
    for (int i = 0; i < 2; ++i) {
        fcntl(ends[i], F_SETFD, FD_CLOEXEC);
        m_closedPipe[i] = Descriptor(ends[i]);
    }
    m_reader = std::thread([this, receive = std::move(receive)] { readLoop(receive); });
}

PacketLink::~PacketLink() { end("closed"); }

bool PacketLink::send(const void* packet, std::uint32_t length) {
    const auto* bytes = static_cast<const unsigned char*>(packet);
    unsigned char prefix[kLengthSize];
    std::memcpy(prefix, &length, sizeof prefix);

    LocalLock lock(m_sending);
    if (m_closed) return false;
    m_gathered.insert(m_gathered.end(), prefix, prefix + kLengthSize);
    m_gathered.insert(m_gathered.end(), bytes, bytes + length);
    return m_gathered.size() < kMostGathered && !leavesLast(bytes, length) ? true : sendGathered();
}

bool PacketLink::sendGathered() {
    for (std::size_t done = 0; done < m_gathered.size();) {
        const ssize_t sent = ::send(m_socket.get(), m_gathered.data() + done,
                                    m_gathered.size() - done, MSG_NOSIGNAL);
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
    shutdown(m_socket.get(), SHUT_RDWR);
    const char byte = 'c';
    [[maybe_unused]] const ssize_t written = write(m_closedPipe[1].get(), &byte, 1);
}

void PacketLink::end(const std::string& reason) {
    close(reason);
    if (m_reader.joinable()) m_reader.join();
}

std::string PacketLink::closeReason() const {
    LocalLock lock(m_mutex);
    return m_reason;
}

void PacketLink::readLoop(const Receiver& receive) {
    std::vector<unsigned char> buffer(kReadSize);
    std::size_t filled = 0;
    for (;;) {
        const ssize_t got = recv(m_socket.get(), buffer.data() + filled, buffer.size() - filled, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            close(got == 0 ? "the other end closed the connection"
                           : std::string("the connection broke: ") + std::strerror(errno));
            return;
        }
        filled += static_cast<std::size_t>(got);
        const std::size_t used = deliver(buffer.data(), filled, receive);
        std::memmove(buffer.data(), buffer.data() + used, filled - used);
        filled -= used;
    }
}

std::size_t PacketLink::deliver(unsigned char* bytes, std::size_t size, const Receiver& receive) {
    std::size_t used = 0;
    while (size - used >= kLengthSize && !m_closed) {
        const std::uint32_t length = lengthAt(bytes + used);
        if (length < m_limits.minPacket || length > m_limits.maxPacket) {
            close("received a packet length of " + std::to_string(length) + " where " +
                  std::to_string(m_limits.minPacket) + " to " + std::to_string(m_limits.maxPacket) +
                  " are possible: the other end is not a host of this kind");
            return size;
        }
        if (size - used - kLengthSize < length) break;
        m_hasReceived.store(true, std::memory_order_relaxed);
        receive(bytes + used + kLengthSize, length);
        used += kLengthSize + length;
    }
    return used;
}

}  // namespace vcctl
