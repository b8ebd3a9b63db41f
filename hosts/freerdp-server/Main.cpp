// norvo-rdp-server: an RDP server whose only service is the virtual channel. It serves as the far
// end in tests, and shows no desktop.
#include <arpa/inet.h>
#include <fcntl.h>
#include <freerdp/channels/channels.h>
#include <freerdp/freerdp.h>
#include <freerdp/listener.h>
#include <freerdp/peer.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <winpr/ssl.h>
#include <winpr/synch.h>
#include <winpr/winsock.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <list>
#include <thread>

#include "FarEnd.h"
#include "StandardDescriptors.h"

namespace {

using hosts::FarEnd;

struct Options {
    std::string certificate;
    std::string key;
    std::string library = hosts::Plugin::kDefaultName;
    std::uint16_t port = 0;
};

// Allocated by FreeRDP, without a constructor call.
struct PeerContext {
    rdpContext context;
    HANDLE channels;
    bool activated;
};

PeerContext& contextOf(const freerdp_peer& peer) {
    return *reinterpret_cast<PeerContext*>(peer.context);
}

BOOL newContext(freerdp_peer*, rdpContext* context) {
    auto& ours = *reinterpret_cast<PeerContext*>(context);
    ours.channels = WTSOpenServerA(reinterpret_cast<LPSTR>(context));
    return ours.channels != nullptr;
}

void freeContext(freerdp_peer*, rdpContext* context) {
    WTSCloseServer(reinterpret_cast<PeerContext*>(context)->channels);
}

// One connection, on its own thread.
class Connection {
public:
    Connection(freerdp_peer* peer, const Options& options, FarEnd& farEnd, HANDLE stop)
        : m_peer(peer),
          m_farEnd(farEnd),
          m_stop(stop),
          m_outgoing(CreateEvent(nullptr, TRUE, FALSE, nullptr)),
          m_thread([this, &options] { serve(options); }) {}
    // Otherwise OpenSSL's cleanup at process exit could hit a handshake in progress.
    ~Connection() {
        m_thread.join();
        CloseHandle(m_outgoing);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool hasEnded() const { return m_ended; }

private:
    void serve(const Options& options) {
        if (begin(options)) {
            while (step()) {
            }
        }
        if (m_channel) {
            std::cout << "client left" << std::endl;
            m_farEnd.leave(m_channel);
            WTSVirtualChannelClose(m_channel);
        }
        m_peer->Disconnect(m_peer);
        freerdp_peer_context_free(m_peer);
        freerdp_peer_free(m_peer);
        m_ended = true;
    }

    bool begin(const Options& options) {
        m_peer->ContextSize = sizeof(PeerContext);
        m_peer->ContextNew = newContext;
        m_peer->ContextFree = freeContext;
        if (!freerdp_peer_context_new(m_peer)) return false;
        rdpSettings& settings = *m_peer->settings;
        settings.CertificateFile = strdup(options.certificate.c_str());
        settings.PrivateKeyFile = strdup(options.key.c_str());
        settings.RdpSecurity = FALSE;
        settings.NlaSecurity = FALSE;
        m_peer->PostConnect = [](freerdp_peer*) { return TRUE; };
        m_peer->Activate = [](freerdp_peer* peer) {
            contextOf(*peer).activated = true;
            return TRUE;
        };
        return m_peer->Initialize(m_peer);
    }

    // Waits for an event and handles it. False at the end.
    bool step() {
        HANDLE waited[32] = {m_stop, m_outgoing,
                             WTSVirtualChannelManagerGetEventHandle(contextOf(*m_peer).channels)};
        DWORD count = 3;
        if (m_incoming) waited[count++] = m_incoming;
        const DWORD more = m_peer->GetEventHandles(m_peer, waited + count, 32 - count);
        if (more == 0) return false;
        WaitForMultipleObjects(count + more, waited, FALSE, INFINITE);
        if (WaitForSingleObject(m_stop, 0) == WAIT_OBJECT_0) return false;
        if (!m_peer->CheckFileDescriptor(m_peer)) return false;
        if (m_channel) m_farEnd.send(m_channel);
        if (!WTSVirtualChannelManagerCheckFileDescriptor(contextOf(*m_peer).channels)) return false;
        if (contextOf(*m_peer).activated && !m_opened) openChannel();
        if (m_channel) m_farEnd.receive(m_channel);
        return true;
    }

    void openChannel() {
        m_opened = true;
        char name[] = NORVO_CHANNEL_NAME;
        m_channel = WTSVirtualChannelOpen(contextOf(*m_peer).channels, WTS_CURRENT_SESSION, name);
        void* event = nullptr;
        DWORD size = 0;
        if (!m_channel ||
            !WTSVirtualChannelQuery(m_channel, WTSVirtualEventHandle, &event, &size)) {
            std::cout << "client without the channel" << std::endl;
            return;
        }
        std::memcpy(&m_incoming, event, sizeof m_incoming);
        WTSFreeMemory(event);
        std::cout << "client joined" << std::endl;
        m_farEnd.join(m_channel, m_outgoing);
    }

    freerdp_peer* const m_peer;
    FarEnd& m_farEnd;
    HANDLE m_stop;
    HANDLE m_outgoing;
    HANDLE m_channel = nullptr;
    HANDLE m_incoming = nullptr;
    bool m_opened = false;
    std::atomic<bool> m_ended = false;
    std::thread m_thread;
};

// On loopback only: there is no password.
int listenOn(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* place = reinterpret_cast<sockaddr*>(&address);
    if (bind(fd, place, length) != 0 || listen(fd, 4) != 0 || getsockname(fd, place, &length) != 0)
        throw std::runtime_error(std::string("cannot listen: ") + std::strerror(errno));
    std::cout << "listening on 127.0.0.1:" << ntohs(address.sin_port) << std::endl;
    return fd;
}

volatile std::sig_atomic_t g_stop = 0;

class Server {
public:
    explicit Server(const Options& options)
        : m_options(options),
          m_farEnd(options.library),
          m_stop(CreateEvent(nullptr, TRUE, FALSE, nullptr)),
          m_listener(freerdp_listener_new()) {
        m_listener->info = this;
        m_listener->PeerAccepted = [](freerdp_listener* listener, freerdp_peer* peer) {
            auto& self = *static_cast<Server*>(listener->info);
            self.m_connections.emplace_back(peer, self.m_options, self.m_farEnd, self.m_stop);
            return TRUE;
        };
        m_listener->OpenFromSocket(m_listener, listenOn(options.port));
    }
    ~Server() {
        SetEvent(m_stop);
        m_connections.clear();
        m_listener->Close(m_listener);
        freerdp_listener_free(m_listener);
        CloseHandle(m_stop);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void run() {
        constexpr DWORD kPause = 100;  // milliseconds between checks for the signal
        HANDLE waited[32];
        while (!g_stop) {
            const DWORD count = m_listener->GetEventHandles(m_listener, waited, 32);
            if (WaitForMultipleObjects(count, waited, FALSE, kPause) == WAIT_TIMEOUT) continue;
            m_listener->CheckFileDescriptor(m_listener);
            m_connections.remove_if([](const Connection& one) { return one.hasEnded(); });
        }
    }

private:
    const Options& m_options;
    FarEnd m_farEnd;
    HANDLE m_stop;
    freerdp_listener* const m_listener;
    std::list<Connection> m_connections;
};

constexpr int kUsage = 2;  // exit status

int serve(int argc, char** argv) {
    Options options;
    CLI::App app("An RDP server on loopback whose only service is the virtual channel; for tests");
    app.add_option("--certificate", options.certificate)->required()->check(CLI::ExistingFile);
    app.add_option("--key", options.key, "A traditional RSA key")
        ->required()
        ->check(CLI::ExistingFile);
    app.add_option("--library", options.library);
    app.add_option("--port", options.port);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    }
    for (const int number : {SIGINT, SIGTERM}) std::signal(number, [](int) { g_stop = 1; });
    winpr_InitializeSSL(WINPR_SSL_INIT_DEFAULT);
    WSADATA winsock;
    WSAStartup(MAKEWORD(2, 2), &winsock);
    WTSRegisterWtsApiFunctionTable(FreeRDP_InitWtsApi());
    Server(options).run();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    support::occupyStandardDescriptors();
    try {
        return serve(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "norvo-rdp-server: %s\n", error.what());
    } catch (...) {
        std::fputs("norvo-rdp-server: failed\n", stderr);
    }
    return 1;
}
