#include "flow/Traffic.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <deque>
#include <iostream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "LatencyRecorder.h"
#include "NorvoStreamClient.h"

namespace bench {

namespace {

using NorvoStreamClient::Client;
using NorvoStreamClient::Direction;
using NorvoStreamClient::Stream;

constexpr auto kUpPatience = std::chrono::seconds(30);
constexpr auto kWritePatience = std::chrono::seconds(1);
constexpr auto kAnswerPatience = std::chrono::seconds(120);
constexpr auto kReadSlice = std::chrono::hours(1);
constexpr auto kPingPatience = std::chrono::seconds(10);
constexpr std::size_t kPingSize = 64;

// The beginning of every message.
struct Stamp {
    std::uint64_t number;  // from 1
    std::uint64_t due;     // nowNanoseconds(), which all processes share
};

std::shared_ptr<Stream> open(Client& client, const std::string& name, Direction direction) {
    std::shared_ptr<Stream> stream = client.openStream(name, direction);
    if (!stream) throw std::runtime_error("cannot open the stream " + name);
    return stream;
}

void waitUntilUp(Stream& stream) {
    if (!stream.waitUntilUp(kUpPatience))
        throw std::runtime_error("the stream " + stream.name() + " does not come up");
}

// One flow on its own thread.
class Sending {
public:
    Sending(Client& client, Flow flow)
        : m_flow(std::move(flow)), m_stream(open(client, m_flow.stream, Direction::Write)) {}
    ~Sending() { end(); }
    void waitUntilUp() { bench::waitUntilUp(*m_stream); }
    void start() {
        m_thread = std::thread([this] { send(); });
    }
    // Returns the number sent.
    std::uint64_t end() {
        if (m_flow.atMost == 0) m_stopped = true;
        if (m_thread.joinable()) m_thread.join();
        return m_sent;
    }
    const std::string& name() const { return m_flow.stream; }

private:
    // A message is due at its scheduled time, even if an earlier one has delayed it. Oversleeping
    // does not count as the channel's time.
    void send() {
        std::string message(m_flow.size, 'x');
        const std::uint64_t period =
            m_flow.perSecond > 0 ? static_cast<std::uint64_t>(1e9 / m_flow.perSecond) : 0;
        std::uint64_t due = nowNanoseconds();
        while (!m_stopped && (m_flow.atMost == 0 || m_sent < m_flow.atMost)) {
            if (const auto now = nowNanoseconds(); period > 0 && now < due) {
                std::this_thread::sleep_for(std::chrono::nanoseconds(due - now));
                stampAndWrite(message, nowNanoseconds());
            } else {
                stampAndWrite(message, period > 0 ? due : now);
            }
            due += period;
        }
    }
    void stampAndWrite(std::string& message, std::uint64_t due) {
        const Stamp stamp{m_sent + 1, due};
        std::memcpy(message.data(), &stamp, sizeof stamp);
        while (!m_stream->write(message.data(), message.size(), kWritePatience)) {
            if (m_stopped) return;
        }
        ++m_sent;
    }

    const Flow m_flow;
    std::shared_ptr<Stream> m_stream;
    std::uint64_t m_sent = 0;
    std::atomic<bool> m_stopped{false};
    std::thread m_thread;
};

// Receives one stream's messages on its own thread.
class Receiving {
public:
    Receiving(Client& client, const std::string& name)
        : m_stream(open(client, name, Direction::Read)), m_thread([this] { receive(); }) {}
    ~Receiving() {
        m_stream->close();
        m_thread.join();
    }
    void begin() {
        const std::lock_guard lock(m_mutex);
        m_count = Received();
        m_delays = LatencyRecorder(kExpected);
        m_begun = std::chrono::steady_clock::now();
    }
    void print() {
        const std::lock_guard lock(m_mutex);
        std::printf("%s %llu %llu %llu %.9g %.9g %.9g ", m_stream->name().c_str(),
                    static_cast<unsigned long long>(m_count.messages),
                    static_cast<unsigned long long>(m_count.bytes),
                    static_cast<unsigned long long>(m_count.lost), m_delays.percentile(0.5) / 1e6,
                    m_delays.percentile(0.99) / 1e6, secondsSince(m_begun));
    }

private:
    static constexpr std::size_t kExpected = 1 << 16;

    void receive() {
        std::string message;
        while (m_stream->read(message, kReadSlice)) {
            const auto now = nowNanoseconds();
            Stamp stamp{};
            if (message.size() < sizeof stamp) continue;
            std::memcpy(&stamp, message.data(), sizeof stamp);
            const std::lock_guard lock(m_mutex);
            ++m_count.messages;
            m_count.bytes += message.size();
            if (stamp.number > m_last) m_count.lost += stamp.number - m_last - 1;
            m_last = stamp.number;
            m_delays.add(now > stamp.due ? now - stamp.due : 0);
        }
    }

    std::shared_ptr<Stream> m_stream;
    std::mutex m_mutex;
    Received m_count;
    std::uint64_t m_last = 0;
    LatencyRecorder m_delays{kExpected};
    std::chrono::steady_clock::time_point m_begun = std::chrono::steady_clock::now();
    std::thread m_thread;
};

std::vector<std::string> argumentsOf(const std::vector<Flow>& flows) {
    std::vector<std::string> arguments;
    for (const Flow& flow : flows) {
        arguments.insert(arguments.end(),
                         {flow.stream, std::to_string(flow.size), std::to_string(flow.perSecond),
                          std::to_string(flow.atMost)});
    }
    return arguments;
}

std::vector<Flow> flowsOf(const std::vector<std::string>& arguments) {
    std::vector<Flow> flows;
    for (std::size_t i = 0; i + 3 < arguments.size(); i += 4) {
        flows.push_back({arguments[i], std::stoul(arguments[i + 1]), std::stod(arguments[i + 2]),
                         std::stoull(arguments[i + 3])});
    }
    return flows;
}

PeerProcess startPeer(const HostRelays& hosts, PathEnd end, const std::string& role,
                      const std::vector<std::string>& arguments) {
    PeerProcess peer(role, arguments, hosts.environment(end));
    waitUntilReady(peer);
    return peer;
}

// Runs the role's body, and reports exceptions on standard error.
template <class Body>
int reportingFailures(const Body& body) {
    try {
        body();
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}

}  // namespace

std::vector<Flow> equalFlows(const std::string& stream, std::size_t count, std::size_t size) {
    std::vector<Flow> flows;
    for (std::size_t i = 0; i < count; ++i) flows.push_back({stream + std::to_string(i), size, 0});
    return flows;
}

std::vector<std::string> streamsOf(const std::vector<Flow>& flows) {
    std::vector<std::string> names;
    names.reserve(flows.size());
    for (const Flow& flow : flows) names.push_back(flow.stream);
    return names;
}

Senders::Senders(const HostRelays& hosts, const std::vector<Flow>& flows)
    : m_process(startPeer(hosts, PathEnd::Near, "flow_send", argumentsOf(flows))) {}

std::map<std::string, std::uint64_t> Senders::stop() {
    m_process.writeLine("stop");
    std::istringstream line(m_process.readLine(kAnswerPatience));
    std::map<std::string, std::uint64_t> sent;
    std::string name;
    for (std::uint64_t count = 0; line >> name >> count;) sent[name] = count;
    if (sent.empty()) throw std::runtime_error("a sender does not end");
    return sent;
}

BENCH_ROLE(flow_send) {
    return reportingFailures([&args] {
        Client client;
        std::deque<Sending> all;
        for (const Flow& flow : flowsOf(args)) all.emplace_back(client, flow);
        for (auto& each : all) each.waitUntilUp();
        say("ready");
        hear();
        for (auto& each : all) each.start();
        hear();
        std::ostringstream line;
        for (auto& each : all) line << each.name() << ' ' << each.end() << ' ';
        say(line.str());
        hear();
    });
}

Receivers::Receivers(const HostRelays& hosts, const std::vector<std::string>& streams)
    : m_process(startPeer(hosts, PathEnd::Far, "flow_receive", streams)) {}

std::string Receivers::ask(const std::string& what) {
    m_process.writeLine(what);
    return m_process.readLine(kAnswerPatience);
}

std::map<std::string, Received> Receivers::report() {
    std::istringstream line(ask("report"));
    std::map<std::string, Received> all;
    std::string name;
    for (Received r;
         line >> name >> r.messages >> r.bytes >> r.lost >> r.p50 >> r.p99 >> r.seconds;)
        all[name] = r;
    if (all.empty()) throw std::runtime_error("the receiver is gone");
    return all;
}

std::uint64_t Receivers::bytesSoFar() {
    std::uint64_t bytes = 0;
    for (const auto& [name, received] : report()) bytes += received.bytes;
    return bytes;
}

void Receivers::waitUntilMoreComes() {
    const auto deadline = std::chrono::steady_clock::now() + kUpPatience;
    for (const std::uint64_t before = bytesSoFar(); bytesSoFar() == before;) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("nothing comes any more");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void Receivers::waitUntilQuiet() {
    constexpr int kMostRounds = 240;
    std::uint64_t before = bytesSoFar();
    for (int round = 0; round < kMostRounds; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const std::uint64_t now = bytesSoFar();
        if (now == before) return;
        before = now;
    }
}

BENCH_ROLE(flow_receive) {
    return reportingFailures([&args] {
        Client client;
        std::deque<Receiving> all;
        for (const auto& name : args) all.emplace_back(client, name);
        say("ready");
        for (std::string word; std::getline(std::cin, word);) {
            for (auto& each : all) word == "report" ? each.print() : each.begin();
            say("");
        }
    });
}

Ping::Ping(const HostRelays& hosts)
    : m_far(startPeer(hosts, PathEnd::Far, "flow_echo", {})),
      m_near(startPeer(hosts, PathEnd::Near, "flow_ping", {})) {}

std::pair<double, double> Ping::run(double seconds) {
    m_near.writeLine(std::to_string(seconds));
    std::istringstream line(m_near.readLine(kAnswerPatience));
    std::pair<double, double> found;
    if (!(line >> found.first >> found.second)) throw std::runtime_error("the ping has failed");
    return found;
}

BENCH_ROLE(flow_echo) {
    return reportingFailures([] {
        Client client;
        const auto in = open(client, "ping", Direction::Read);
        const auto out = open(client, "ping.back", Direction::Write);
        say("ready");
        for (std::string message; in->read(message, kReadSlice);)
            out->write(message.data(), message.size(), kWritePatience);
    });
}

BENCH_ROLE(flow_ping) {
    return reportingFailures([] {
        constexpr std::size_t kExpected = 1 << 18;
        Client client;
        const auto out = open(client, "ping", Direction::Write);
        const auto in = open(client, "ping.back", Direction::Read);
        waitUntilUp(*out);
        waitUntilUp(*in);
        say("ready");
        const std::string ping(kPingSize, 'p');
        std::string answer;
        for (double seconds = 0; std::cin >> seconds;) {
            LatencyRecorder delays(kExpected);
            const auto over = nowNanoseconds() + static_cast<std::uint64_t>(seconds * 1e9);
            for (auto start = nowNanoseconds(); start < over; start = nowNanoseconds()) {
                out->write(ping.data(), ping.size(), kPingPatience);
                const bool answered{in->read(answer, kPingPatience)};
                delays.add(nowNanoseconds() - start);
                if (!answered) break;
            }
            std::printf("%.9g %.9g\n", delays.percentile(0.5) / 1e6, delays.percentile(0.99) / 1e6);
            std::fflush(stdout);
        }
    });
}

std::vector<double> timesToOpen(const HostRelays& hosts, std::size_t count) {
    PeerProcess opener("flow_open", {std::to_string(count)}, hosts.environment(PathEnd::Near));
    std::istringstream line(opener.readLine(kAnswerPatience));
    std::vector<double> times;
    for (double time = 0; line >> time;) times.push_back(time);
    if (times.size() != count) throw std::runtime_error("a new stream does not come up");
    return times;
}

BENCH_ROLE(flow_open) {
    return reportingFailures([&args] {
        Client client;
        if (!client.waitUntilConnected(kUpPatience)) throw std::runtime_error("nobody is there");
        for (unsigned long i = 0; i < std::stoul(args.at(0)); ++i) {
            const auto begun = nowNanoseconds();
            const auto stream = open(client, "new" + std::to_string(i), Direction::Write);
            waitUntilUp(*stream);
            std::printf("%.6g ", static_cast<double>(nowNanoseconds() - begun) / 1e6);
        }
        say("");
    });
}

}  // namespace bench
