#include "ByteChannel.h"

#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "CommandError.h"
#include "Endpoint.h"
#include "SocketOptions.h"

namespace vcctl {

using support::Descriptor;

namespace {

class SocketChannel : public ByteChannel {
public:
    // TCP-only options fail harmlessly on other sockets.
    explicit SocketChannel(Descriptor socket) : m_socket(std::move(socket)) {
        const int on = 1;
        setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kSocketBuffer,
                   sizeof kSocketBuffer);
        noticeVanishedPeer();
    }

    ssize_t read(void* bytes, std::size_t size) override {
        return recv(m_socket.get(), bytes, size, 0);
    }
    ssize_t write(const void* bytes, std::size_t size) override {
        return send(m_socket.get(), bytes, size, MSG_NOSIGNAL);
    }
    void interrupt() override {
        shutdown(m_socket.get(), SHUT_RDWR);
        ByteChannel::interrupt();
    }

private:
    // A peer whose machine is gone is as silent as an idle session.
    void noticeVanishedPeer() const {
        const int on = 1;
        const int seconds = 10;
        const int probes = 3;
        setsockopt(m_socket.get(), IPPROTO_TCP, kKeepAliveIdle, &seconds, sizeof seconds);
        setsockopt(m_socket.get(), IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof seconds);
        setsockopt(m_socket.get(), IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
        setsockopt(m_socket.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    }

    const Descriptor m_socket;
};

// The descriptors may be shared with other processes, so their modes must not be changed. It polls
// first, and never reads or writes more than is possible without blocking.
class PipeChannel : public ByteChannel {
public:
    PipeChannel(Descriptor in, Descriptor out) : m_in(std::move(in)), m_out(std::move(out)) {}

    ssize_t read(void* bytes, std::size_t size) override {
        return waitFor(m_in.get(), POLLIN) ? ::read(m_in.get(), bytes, size) : 0;
    }
    ssize_t write(const void* bytes, std::size_t size) override {
        if (waitFor(m_out.get(), POLLOUT))
            return ::write(m_out.get(), bytes, std::min<std::size_t>(size, PIPE_BUF));
        errno = EPIPE;
        return -1;
    }

private:
    // False when interrupted.
    bool waitFor(int fd, short event) const {
        pollfd waited[2] = {{fd, event, 0}, {interrupted(), POLLIN, 0}};
        while (poll(waited, 2, -1) < 0 && errno == EINTR) {
        }
        return waited[1].revents == 0;
    }

    const Descriptor m_in;
    const Descriptor m_out;
};

}  // namespace

ByteChannel::ByteChannel() {
    int ends[2];
    if (pipe(ends) != 0) throw systemError("cannot make a pipe", errno);
    for (int i = 0; i < 2; ++i) {
        fcntl(ends[i], F_SETFD, FD_CLOEXEC);
        m_interruption[i] = Descriptor(ends[i]);
    }
}

void ByteChannel::interrupt() {
    const char byte = 'i';
    [[maybe_unused]] const ssize_t written = ::write(m_interruption[1].get(), &byte, 1);
}

std::unique_ptr<ByteChannel> overSocket(Descriptor socket) {
    return std::make_unique<SocketChannel>(std::move(socket));
}

std::unique_ptr<ByteChannel> overPipes(Descriptor in, Descriptor out) {
    return std::make_unique<PipeChannel>(std::move(in), std::move(out));
}

}  // namespace vcctl
