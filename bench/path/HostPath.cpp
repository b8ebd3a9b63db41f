#include "HostPath.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "LatencyRecorder.h"
#include "NorvoStreamClient.h"
#include "SessionObjects.h"

namespace bench {

namespace {

using NorvoStreamClient::Client;
using NorvoStreamClient::Direction;
using NorvoStreamClient::Stream;

constexpr char kThere[] = "Media";
constexpr char kBack[] = "Generic";
constexpr auto kUpPatience = std::chrono::seconds(20);
constexpr auto kPatience = std::chrono::milliseconds(kHopPatienceMs);

std::shared_ptr<Stream> openStream(Client& client, const char* name, Direction direction) {
    std::shared_ptr<Stream> stream = client.openStream(name, direction);
    if (!stream) throw std::runtime_error(std::string("cannot open the stream ") + name);
    return stream;
}

class StreamEnd : public Hop {
public:
    explicit StreamEnd(PathEnd end)
        : m_out(openStream(m_client, end == PathEnd::Near ? kThere : kBack, Direction::Write)),
          m_in(openStream(m_client, end == PathEnd::Near ? kBack : kThere, Direction::Read)) {}

    void waitUntilUp() {
        if (!m_out->waitUntilUp(kUpPatience) || !m_in->waitUntilUp(kUpPatience))
            throw std::runtime_error("the streams do not come up");
    }
    void send(const void* data, std::size_t length) override {
        if (!m_out->write(data, length, kPatience)) throw std::runtime_error("nobody takes it");
    }
    void receive(std::string& message) override {
        const std::size_t expected = message.size();
        if (!m_in->read(message, kPatience)) throw std::runtime_error("the peer is silent");
        if (message.size() != expected) throw std::runtime_error("a message of the wrong length");
    }

private:
    Client m_client;
    std::shared_ptr<Stream> m_out;
    std::shared_ptr<Stream> m_in;
};

std::unique_ptr<PathRelays> start(const PathRun& run) {
    auto relays = std::make_unique<HostRelays>(run.channel);
    relays->waitUntilJoined();
    return relays;
}

// The far end's streams come up when the near end asks for its own.
std::unique_ptr<Hop> join(PathEnd end, const std::string&, const PathRun&) {
    auto joined = std::make_unique<StreamEnd>(end);
    if (end == PathEnd::Near) joined->waitUntilUp();
    return joined;
}

std::string missingHosts() {
    const auto [vcctl, library] = HostBinaries::ours();
    for (const std::string& needed : {vcctl, library}) {
        if (access(needed.c_str(), R_OK) != 0) return needed + " is not there";
    }
    return {};
}

const PathKindRegistrar entry({"vcctl host", missingHosts, start, join});

// The rest of the next line in which a host says `what`.
std::string answerOf(PeerProcess& host, const std::string& what) {
    std::string seen;
    for (std::string line; !(line = host.readLine(std::chrono::seconds(10))).empty();) {
        if (line.rfind(what, 0) == 0) return line.substr(line.rfind(' ') + 1);
        seen += ' ' + line;
    }
    throw std::runtime_error("a host never said '" + what + "':" + seen);
}

}  // namespace

HostBinaries HostBinaries::ours() { return {NORVO_BENCH_VCCTL, NORVO_BENCH_LIBRARY}; }

HostRelays::HostRelays(const std::string& channel, HostBinaries binaries)
    : m_binaries(std::move(binaries)),
      m_name(uniquePathName()),
      m_home("/tmp/" + m_name),
      m_far(startHost(PathEnd::Far, channel, "--listen", "127.0.0.1:0")),
      m_near(startHost(PathEnd::Near, channel, "--connect", answerOf(m_far, "listening on"))) {}

HostRelays::~HostRelays() {
    for (const int number : {SIGCONT, SIGTERM}) {
        for (PeerProcess* host : {&m_near, &m_far}) host->signal(number);
    }
    for (PeerProcess* host : {&m_near, &m_far}) {
        if (host->wait(std::chrono::seconds(5)) < 0) host->kill();
    }
    std::error_code ignored;
    std::filesystem::remove_all(m_home, ignored);
    for (const PathEnd end : {PathEnd::Near, PathEnd::Far})
        support::removeSessionObjects(sessionNamespace(end));
}

void HostRelays::waitUntilJoined() {
    answerOf(m_far, "joined");
    answerOf(m_near, "joined");
}

void HostRelays::signal(PathEnd end, int number) const {
    (end == PathEnd::Far ? m_far : m_near).signal(number);
}

void HostRelays::end(PathEnd end) {
    signal(end, SIGTERM);
    if ((end == PathEnd::Far ? m_far : m_near).wait(std::chrono::seconds(60)) < 0)
        throw std::runtime_error("a host does not end");
}

std::string HostRelays::sessionNamespace(PathEnd end) const {
    return m_name + (end == PathEnd::Near ? "a" : "b");
}

std::vector<std::string> HostRelays::environment(PathEnd end) const {
    return {"NORVO_VDI_NAMESPACE=" + sessionNamespace(end), "HOME=" + m_home.string()};
}

PeerProcess HostRelays::startHost(PathEnd end, const std::string& channel, const std::string& how,
                                  const std::string& place) const {
    const auto home = m_home / (end == PathEnd::Near ? "a" : "b");
    std::filesystem::create_directories(home);
    return PeerProcess(
        kProgramRole,
        {m_binaries.vcctl, "host", "--kind", channel, how, place, "--library", m_binaries.library},
        {environment(end).front(), "HOME=" + home.string()});
}

double millisecondsToFirstMessage(const std::string& channel) {
    const auto begun = nowNanoseconds();
    const HostRelays hosts(channel);
    PeerProcess far("first_message", {"get"}, hosts.environment(PathEnd::Far));
    const PeerProcess near("first_message", {"put"}, hosts.environment(PathEnd::Near));
    const std::string line = far.readLine();
    if (line.empty()) throw std::runtime_error("no message came");
    return static_cast<double>(std::stoull(line) - begun) / 1e6;
}

BENCH_ROLE(first_message) {
    const bool gets = args.at(0) == "get";
    Client client;
    const auto stream = openStream(client, kThere, gets ? Direction::Read : Direction::Write);
    if (!gets) return stream->write("hello", 5, kUpPatience) && stream->flush(kUpPatience) ? 0 : 1;
    std::string message;
    if (!stream->read(message, kUpPatience)) return 1;
    std::printf("%llu\n", static_cast<unsigned long long>(nowNanoseconds()));
    return 0;
}

}  // namespace bench
