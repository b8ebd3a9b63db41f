// vcctl host: a stand-in for the remote-desktop client. It loads the plug-in, and connects its
// channel to that of another host.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "ChildCommand.h"
#include "CommandError.h"
#include "CommandLine.h"
#include "Endpoint.h"
#include "Host.h"
#include "StopSignal.h"

namespace vcctl {

namespace {

using support::Descriptor;

constexpr int kPauseAfterFailure = 100;  // milliseconds

struct JoinOptions {
    std::string listen;
    std::string connect;
    bool standard = false;  // input and output
    bool exec = false;
    std::vector<std::string> command;
    bool allowRemote = false;
    bool endWithInput = false;
};

void serveListener(const HostOptions& options, const Endpoint& endpoint) {
    const Descriptor listener = endpoint.listen();
    const std::shared_ptr<void> file(nullptr, [&](void*) { endpoint.removeFile(); });
    Host host(options);
    const std::string place = endpoint.boundText(listener.get());
    host.say("listening on " + place);
    while (!StopSignal::requested()) {
        pollfd waited[2] = {{listener.get(), POLLIN, 0}, {StopSignal::descriptor(), POLLIN, 0}};
        if (poll(waited, 2, -1) < 0) continue;
        if (waited[1].revents) StopSignal::drain();
        if (!(waited[0].revents & POLLIN)) continue;
        if (Descriptor peer = acceptFrom(listener.get())) {
            host.serve(std::move(peer), "the host that connected to " + place, listener.get());
        } else {
            if (errno == EACCES) host.say("refused a connection of another user");
            StopSignal::wait(kPauseAfterFailure);
        }
    }
}

// Pauses between attempts. They grow while no peer greets: a host that is always turned away does
// not try continually.
class Pauses {
public:
    void wait(Host::End end) {
        if (end == Host::End::WasHost) m_next = kFirst;
        StopSignal::wait(m_next);
        m_next = std::min(m_next * 2, end == Host::End::TurnedAway ? kLongestAway : kLongest);
    }

private:
    static constexpr int kFirst = 50;  // milliseconds, as the next
    static constexpr int kLongest = 2000;
    static constexpr int kLongestAway = 5000;
    int m_next = kFirst;
};

void serveConnector(Host& host, const Endpoint& endpoint) {
    Pauses pauses;
    bool told = false;
    while (!StopSignal::requested()) {
        auto end = Host::End::Other;
        if (Descriptor peer = endpoint.connect()) {
            end = host.serve(std::move(peer), endpoint.text());
            told = false;
        } else if (!told && !StopSignal::requested()) {
            host.say("nothing answers on " + endpoint.text() + " (" + std::strerror(errno) +
                     "); trying again until it does");
            told = true;
        }
        host.expectToBeTurnedAway(end == Host::End::TurnedAway);
        pauses.wait(end);
    }
}

void serveCommand(Host& host, const std::vector<std::string>& command) {
    Pauses pauses;
    while (!StopSignal::requested()) {
        ChildCommand child(command);
        const auto end = host.serve(child.takeSocket(), "'" + command[0] + "'");
        if (StopSignal::requested()) return;
        host.say("'" + command[0] + "' has left: " + child.outcome() + "; starting it again");
        pauses.wait(end);
    }
}

Descriptor copyOf(int fd) {
    Descriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, 3));
    if (!copy) throw systemError("cannot use standard input and output as a channel", errno);
    return copy;
}

// Output of the library or a child to standard output must not get into the channel.
std::unique_ptr<ByteChannel> takeStandardStreams() {
    Descriptor in = copyOf(STDIN_FILENO);
    Descriptor out = copyOf(STDOUT_FILENO);
    const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    dup2(nothing.get(), STDIN_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    return overPipes(std::move(in), std::move(out));
}

int runHost(HostOptions options, const JoinOptions& join) {
    StopSignal::keepOnHangUp();
    std::optional<StopWithInput> stopWithInput;
    if (join.endWithInput) stopWithInput.emplace();
    if (join.standard) {
        options.standardOutputIsTheChannel = true;
        auto bytes = takeStandardStreams();
        const auto end = Host(options).serve(std::move(bytes), "standard input and output");
        return end == Host::End::NoHost ? kFailed : kOk;
    }
    if (join.exec) {
        Host host(options);
        serveCommand(host, join.command);
    } else if (!join.listen.empty()) {
        serveListener(options, Endpoint::parse(join.listen, join.allowRemote));
    } else {
        const Endpoint endpoint = Endpoint::parse(join.connect, join.allowRemote);
        options.connects = true;
        Host host(options);
        serveConnector(host, endpoint);
    }
    return kOk;
}

void check(const JoinOptions& join) {
    const int ways = !join.listen.empty() + !join.connect.empty() + join.standard + join.exec;
    if (ways != 1)
        throw CommandError(
            "give one of --listen, --connect, --stdio and --exec COMMAND: see vcctl host --help",
            kUsage);
    if (join.connect.ends_with(":0") && !join.connect.starts_with("unix:"))
        throw CommandError("'" + join.connect + "': a port to connect to is 1 to 65535", kUsage);
    if (join.exec && join.command.empty()) throw CommandError("--exec: which command?", kUsage);
    if (!join.exec && !join.command.empty())
        throw CommandError("'" + join.command[0] + "' is no option: see vcctl host --help", kUsage);
}

}  // namespace

void addHostCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<HostOptions>();
    auto join = std::make_shared<JoinOptions>();
    Command command(
        app, "host",
        "Stands in for a remote-desktop client: loads the plug-in and joins it to another host");
    addKindOption(command, options->kind);
    command
        .argument("--listen", join->listen,
                  "Wait for the other host there (port 0: any free one). unix:PATH lets in only "
                  "processes of the same user; TCP, whoever is on this machine")
        .type("ADDR:PORT|unix:PATH");
    command.argument("--connect", join->connect, "Connect to the other host there, again and again")
        .type("ADDR:PORT|unix:PATH");
    command.flag("--stdio", join->standard,
                 "Standard input and output are the channel; end with them");
    command.flag("--exec", join->exec,
                 "What follows is a command, with its arguments, whose standard input and output "
                 "are the channel; start it again when it ends");
    command.rest(join->command);
    addLibraryOption(command, options->pluginPath);
    command
        .argument("--capture", options->capture,
                  "Write every packet to this pcapng file (vcctl decode, Wireshark)")
        .type("FILE");
    command.flag("--take-over", options->takeOver,
                 "Start also where another host serves the session namespace, and serve it once "
                 "that one has ended");
    command.flag("--allow-remote", join->allowRemote,
                 "Accept TCP addresses outside this machine. The link is neither encrypted nor "
                 "authenticated: anyone who reaches it is the other end of the channel");
    command.flag("-q,--quiet", options->quiet, "Say nothing about connections");
    command.hiddenFlag("--end-with-input", join->endWithInput);
    command.footer(
        "SIGHUP drops the connection and joins again; SIGINT and SIGTERM end the host cleanly.\n"
        "Between two machines: vcctl host --exec ssh DESK vcctl host --stdio");
    command.run([=, &exitCode] {
        check(*join);
        exitCode = runHost(*options, *join);
    });
}

}  // namespace vcctl
