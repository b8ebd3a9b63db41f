// vcctl host: a stand-in for the remote-desktop client. It loads the plug-in, and joins its channel
// to that of another host over TCP.
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "Capture.h"
#include "ChannelKind.h"
#include "CommandError.h"
#include "CommandLine.h"
#include "Endpoint.h"
#include "PacketLink.h"
#include "PluginLibrary.h"
#include "StopSignal.h"

namespace vcctl {

namespace {

using support::Descriptor;

// Milliseconds. A connection that cannot be taken, for want of descriptors, is there all the time.
constexpr int kPauseAfterFailure = 100;

struct HostOptions {
    std::string kind = "tcp";
    std::string listen;
    std::string connect;
    std::string pluginPath;
    std::string capture;
    bool allowRemote = false;
    bool quiet = false;
    bool endWithInput = false;
};

// The host's side of the plug-in's one callback.
class Host {
public:
    explicit Host(const HostOptions& options)
        : m_kind(channelKind(options.kind)), m_quiet(options.quiet), m_plugin(options.pluginPath) {
        if (!options.capture.empty()) {
            m_capture = std::make_unique<CaptureWriter>(
                options.capture, std::string(m_plugin.getChannelName()) + " " + m_kind.name);
        }
        m_plugin.InitialiseChannel(&Host::append, m_kind.number, this);
    }

    // Some kinds of channel leave a call of append() behind that does not return at once.
    ~Host() {
        constexpr int kMostWaits = 2000;
        m_plugin.Shutdown();
        for (int i = 0; m_appending > 0 && i < kMostWaits; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    // Joins the channel to `socket` until one side ends it or the user stops. Whoever connects to
    // `listener` (if there is one) meanwhile is turned away, as a channel has two ends; but a peer
    // that has only kept silent gives way.
    void serve(Descriptor socket, const std::string& peer, int listener = -1) {
        StopSignal::takeHangUp();  // one that came while there was nothing to drop
        try {
            setLink(std::make_shared<PacketLink>(
                std::move(socket), PacketLink::Limits{kMinPacket, m_kind.maxPacket},
                [this](unsigned char* packet, std::uint32_t length) { receive(packet, length); }));
        } catch (const std::runtime_error& error) {
            say("not joined to " + peer + ": " + error.what());
            StopSignal::wait(kPauseAfterFailure);
            return;
        }
        say("joined to " + peer);
        m_plugin.ChannelActive(1);
        const auto joined = link();
        waitForEnd(*joined, listener);
        joined->end("this host stops");
        m_plugin.ChannelActive(0);
        setLink(nullptr);
        say("left " + peer + ": " + joined->closeReason());
    }

    void say(const std::string& text) const {
        if (!m_quiet) std::cout << text << std::endl;
    }

private:
    void waitForEnd(PacketLink& link, int listener) const {
        // An agent that is up greets at once.
        constexpr auto kLongestSilence = std::chrono::seconds(2);
        const auto begun = std::chrono::steady_clock::now();
        pollfd waited[3] = {{link.closedDescriptor(), POLLIN, 0},
                            {StopSignal::descriptor(), POLLIN, 0},
                            {listener, POLLIN, 0}};
        for (;;) {
            if (StopSignal::takeHangUp()) link.close("dropped on request");
            if (poll(waited, 3, -1) < 0) continue;
            if (waited[1].revents) StopSignal::drain();
            if (waited[0].revents || StopSignal::requested()) return;
            if (!waited[2].revents) continue;
            if (!link.hasReceived() && std::chrono::steady_clock::now() - begun > kLongestSilence) {
                link.close("it sent nothing, and another host is waiting");
                return;
            }
            if (const Descriptor other = acceptFrom(listener)) {
                say("turned away a second connection: a host is joined already");
            } else {
                StopSignal::wait(kPauseAfterFailure);
            }
        }
    }

    static int append(const void* data, std::uint32_t length, std::uintptr_t, void* context) {
        auto* host = static_cast<Host*>(context);
        ++host->m_appending;
        if (const auto link = host->link()) {
            if (host->m_capture) host->m_capture->write(Direction::Outbound, data, length);
            if (!link->send(data, length)) host->waitUntilLeft(link);
        }
        --host->m_appending;
        return 0;
    }

    void receive(unsigned char* packet, std::uint32_t length) {
        if (m_capture) m_capture->write(Direction::Inbound, packet, length);
        m_plugin.ReceiveData(packet, length);
    }

    std::shared_ptr<PacketLink> link() {
        std::lock_guard lock(m_mutex);
        return m_link;
    }
    void setLink(std::shared_ptr<PacketLink> link) {
        {
            std::lock_guard lock(m_mutex);
            m_link = std::move(link);
        }
        m_left.notify_all();
    }
    // A link that is closed takes nothing: what the plug-in has not handed over yet is not lost in
    // it while the plug-in is about to hear of the loss.
    void waitUntilLeft(const std::shared_ptr<PacketLink>& link) {
        std::unique_lock lock(m_mutex);
        m_left.wait(lock, [&] { return m_link != link; });
    }

    const ChannelKind& m_kind;
    const bool m_quiet;
    PluginLibrary m_plugin;
    std::unique_ptr<CaptureWriter> m_capture;
    std::mutex m_mutex;
    std::condition_variable m_left;
    std::atomic<int> m_appending = 0;
    std::shared_ptr<PacketLink> m_link;
};

void serveListener(Host& host, const Endpoint& endpoint) {
    const Descriptor listener = endpoint.listen();
    const std::string place = endpoint.text().substr(0, endpoint.text().rfind(':') + 1) +
                              std::to_string(boundPort(listener.get()));
    host.say("listening on " + place);
    while (!StopSignal::requested()) {
        pollfd waited[2] = {{listener.get(), POLLIN, 0}, {StopSignal::descriptor(), POLLIN, 0}};
        if (poll(waited, 2, -1) < 0) continue;
        if (waited[1].revents) StopSignal::drain();
        if (!(waited[0].revents & POLLIN)) continue;
        Descriptor peer = acceptFrom(listener.get());
        if (peer) {
            host.serve(std::move(peer), "the host that connected to " + place, listener.get());
        } else {
            StopSignal::wait(kPauseAfterFailure);
        }
    }
}

void serveConnector(Host& host, const Endpoint& endpoint) {
    constexpr int kFirstPause = 50;  // milliseconds, as below
    constexpr int kLongestPause = 2000;
    using Clock = std::chrono::steady_clock;
    int pause = kFirstPause;
    bool told = false;
    while (!StopSignal::requested()) {
        if (Descriptor peer = endpoint.connect()) {
            const auto begun = Clock::now();
            host.serve(std::move(peer), endpoint.text());
            // Whoever is turned away each time does not knock ever so often.
            if (Clock::now() - begun > std::chrono::milliseconds(kLongestPause))
                pause = kFirstPause;
            told = false;
        } else if (!told && !StopSignal::requested()) {
            host.say("nothing answers on " + endpoint.text() + " (" + std::strerror(errno) +
                     "); trying again until it does");
            told = true;
        }
        StopSignal::wait(pause);
        pause = std::min(pause * 2, kLongestPause);
    }
}

int runHost(const HostOptions& options) {
    const bool listens = !options.listen.empty();
    const Endpoint endpoint =
        Endpoint::parse(listens ? options.listen : options.connect, options.allowRemote);
    StopSignal::keepOnHangUp();
    std::optional<StopWithInput> stopWithInput;
    if (options.endWithInput) stopWithInput.emplace();
    Host host(options);
    listens ? serveListener(host, endpoint) : serveConnector(host, endpoint);
    return kOk;
}

}  // namespace

void addHostCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<HostOptions>();
    Command command(
        app, "host",
        "Stands in for a remote-desktop client: loads the plug-in and joins it to another host");
    addKindOption(command, options->kind);
    Argument listen = command.argument("--listen", options->listen,
                                       "Wait for the other host there (port 0: any free one)");
    Argument connect = command.argument("--connect", options->connect,
                                        "Connect to the other host there, again and again");
    listen.type("ADDR:PORT").excludes(connect.type("ADDR:PORT"));
    addLibraryOption(command, options->pluginPath);
    command
        .argument("--capture", options->capture,
                  "Write every packet to this pcapng file (vcctl decode, Wireshark)")
        .type("FILE");
    command.flag("--allow-remote", options->allowRemote,
                 "Accept addresses outside this machine. The link is neither encrypted nor "
                 "authenticated: anyone who reaches it is the other end of the channel");
    command.flag("-q,--quiet", options->quiet, "Say nothing about connections");
    command.hiddenFlag("--end-with-input", options->endWithInput);
    command.footer(
        "SIGHUP drops the connection and joins again; SIGINT and SIGTERM end the host cleanly.");
    command.run([=, &exitCode] {
        if (options->listen.empty() == options->connect.empty()) {
            throw CommandError("give --listen ADDR:PORT or --connect ADDR:PORT", kUsage);
        }
        exitCode = runHost(*options);
    });
}

}  // namespace vcctl
