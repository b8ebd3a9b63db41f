#include "DemoEnds.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <vector>

#include "CommandError.h"
#include "Descriptor.h"
#include "SessionClient.h"
#include "StopSignal.h"
#include "TransferTally.h"

namespace vcctl {

namespace {

using NorvoStreamClient::Direction;
using NorvoStreamClient::Stream;
using support::Descriptor;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

constexpr unsigned int kFileCapacity = 64u << 10;
constexpr unsigned int kPingCapacity = 4u << 10;
constexpr std::size_t kPartSize = 64u << 10;  // of the file, preceded by its offset
constexpr std::size_t kPartHead = sizeof(std::uint64_t);
constexpr std::size_t kWindow = 48;  // parts in flight: the agents drop those beyond 1001
constexpr double kUpSeconds = 20;
constexpr auto kPingPause = std::chrono::milliseconds(2);
constexpr auto kLost = std::chrono::seconds(2);

struct Ping {
    std::uint64_t number;
    std::int64_t sent;  // nanoseconds of the steady clock, which all processes share
    std::int64_t received;
    char filling[40];
};
static_assert(sizeof(Ping) == 64);

std::int64_t now() { return Clock::now().time_since_epoch().count(); }

// True once the demo has closed our standard input: it is over, or has died.
bool inputEnded(int milliseconds) {
    pollfd waited{STDIN_FILENO, POLLIN, 0};
    char byte = 0;
    return poll(&waited, 1, milliseconds) > 0 && read(STDIN_FILENO, &byte, 1) == 0;
}

bool send(Stream& stream, const void* data, std::size_t size, const std::atomic<bool>& stopped) {
    while (!stopped && !StopSignal::requested()) {
        if (stream.write(data, size, kPollTime)) return true;
    }
    return false;
}

void echo(Stream& from, Stream& to, bool isPing, const std::atomic<bool>& stopped) {
    std::string message;
    while (!stopped && !StopSignal::requested()) {
        if (!from.read(message, kPollTime)) continue;
        if (isPing && message.size() == sizeof(Ping)) {
            const std::int64_t received = now();
            std::memcpy(message.data() + offsetof(Ping, received), &received, sizeof received);
        }
        send(to, message.data(), message.size(), stopped);
    }
}

// One-way times of pings, in microseconds.
class Pinger {
public:
    Pinger(Stream& out, Stream& back) : m_out(out), m_back(back) {}

    // Pings until `stopped`, or for `seconds`.
    Json run(const std::atomic<bool>& stopped, double seconds) {
        std::vector<double> times;
        std::uint64_t lost = 0;
        const auto end = after(seconds);
        while (!stopped && !StopSignal::requested() && Clock::now() < end) {
            Ping ping{++m_number, now(), 0, {}};
            if (!m_out.write(&ping, sizeof ping, kPollTime)) continue;
            if (const auto time = answerTo(ping, stopped)) {
                times.push_back(*time);
            } else if (!stopped && !StopSignal::requested()) {
                ++lost;
            }
            std::this_thread::sleep_for(kPingPause);
        }
        return summary(times, lost);
    }

private:
    // In microseconds; nothing if no answer came in time, or if stopped first.
    std::optional<double> answerTo(const Ping& ping, const std::atomic<bool>& stopped) {
        std::string message;
        const auto giveUp = Clock::now() + kLost;
        while (!stopped && Clock::now() < giveUp) {
            if (!m_back.read(message, kPollTime) || message.size() != sizeof(Ping)) continue;
            Ping answer{};
            std::memcpy(&answer, message.data(), sizeof answer);
            if (answer.number == ping.number) {
                return static_cast<double>(answer.received - ping.sent) / 1000.0;
            }
        }
        return std::nullopt;
    }

    static Json summary(std::vector<double>& times, std::uint64_t lost) {
        std::sort(times.begin(), times.end());
        const auto at = [&](double part) {
            return times.empty() ? 0.0
                                 : times[static_cast<std::size_t>(
                                       part * static_cast<double>(times.size() - 1))];
        };
        return {{"count", times.size()}, {"lost", lost},    {"p50", at(0.50)},
                {"p90", at(0.90)},       {"p99", at(0.99)}, {"max", at(1.0)}};
    }

    Stream& m_out;
    Stream& m_back;
    std::uint64_t m_number = 0;
};

// A file in memory, for reading.
class MappedFile {
public:
    explicit MappedFile(const std::string& path) {
        const Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat status {};
        if (!fd || fstat(fd.get(), &status) != 0) throw systemError("cannot read " + path, errno);
        m_size = static_cast<std::size_t>(status.st_size);
        if (m_size == 0) return;
        m_address = mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
        if (m_address == MAP_FAILED) throw systemError("cannot read " + path, errno);
    }
    ~MappedFile() {
        if (m_size > 0) munmap(m_address, m_size);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    const char* data() const { return static_cast<const char*>(m_address); }
    std::size_t size() const { return m_size; }

private:
    void* m_address = nullptr;
    std::size_t m_size = 0;
};

// Sends the file in parts, a window of them in flight, and receives them back. A part is its offset
// and its bytes; parts lost in a reconnect are sent again.
class RoundTrip {
public:
    RoundTrip(const MappedFile& file, Stream& out, Stream& back)
        : m_file(file), m_out(out), m_back(back) {}

    // Runs until `end` bytes are back. False when interrupted.
    bool run(std::size_t end) {
        const std::atomic<bool> never{false};
        auto lastProgress = Clock::now();
        while (m_returned < end) {
            while (m_sent < end && m_sent - m_returned < kWindow * (kPartSize - kPartHead)) {
                if (!sendPart(never)) return false;
            }
            if (takeBack()) {
                lastProgress = Clock::now();
            } else if (StopSignal::requested()) {
                return false;
            } else if (Clock::now() - lastProgress > kLost) {
                m_resent += m_sent - m_returned;
                m_sent = m_returned;
                lastProgress = Clock::now();
            }
        }
        return true;
    }

    const TransferTally& returned() const { return m_tally; }
    std::size_t resent() const { return m_resent; }

private:
    bool sendPart(const std::atomic<bool>& never) {
        const std::size_t length = std::min(kPartSize - kPartHead, m_file.size() - m_sent);
        const std::uint64_t offset = m_sent;
        m_part.resize(kPartHead + length);
        std::memcpy(m_part.data(), &offset, kPartHead);
        std::memcpy(m_part.data() + kPartHead, m_file.data() + m_sent, length);
        m_sent += length;
        return send(m_out, m_part.data(), m_part.size(), never);
    }

    bool takeBack() {
        if (!m_back.read(m_message, kPollTime) || m_message.size() <= kPartHead) return false;
        std::uint64_t offset = 0;
        std::memcpy(&offset, m_message.data(), kPartHead);
        if (offset != m_returned) return false;
        m_tally.add(m_message.data() + kPartHead, m_message.size() - kPartHead);
        m_returned += m_message.size() - kPartHead;
        return true;
    }

    const MappedFile& m_file;
    Stream& m_out;
    Stream& m_back;
    std::string m_part;
    std::string m_message;
    std::size_t m_sent = 0;
    std::size_t m_returned = 0;
    std::size_t m_resent = 0;
    TransferTally m_tally;
};

void tell(const std::string& line) { std::cout << line << std::endl; }

// The names of received notifications; recorded on a thread of the client.
class Announcements {
public:
    NorvoStreamClient::Options clientOptions() {
        NorvoStreamClient::Options options;
        options.onNotification = [this](const NorvoStreamClient::Notification& notification) {
            std::lock_guard lock(m_mutex);
            m_names.push_back(notification.name);
        };
        return options;
    }
    Json names() const {
        std::lock_guard lock(m_mutex);
        return m_names;
    }

private:
    mutable std::mutex m_mutex;
    Json m_names = Json::array();
};

// The near end's four streams, once they are up.
struct NearStreams {
    explicit NearStreams(SessionClient& session)
        : file(session.open("Media", Direction::Write, kFileCapacity)),
          fileBack(session.open("Generic", Direction::Read, kFileCapacity)),
          pings(session.open("Basic", Direction::Write, kPingCapacity)),
          pingsBack(session.open("StringCipher", Direction::Read, kPingCapacity)) {
        for (Stream* stream : {file.get(), fileBack.get(), pings.get(), pingsBack.get()}) {
            session.waitUntilUp(*stream, kUpSeconds);
        }
    }

    const std::shared_ptr<Stream> file;
    const std::shared_ptr<Stream> fileBack;
    const std::shared_ptr<Stream> pings;
    const std::shared_ptr<Stream> pingsBack;
};

// Transfers `size` bytes in two halves, and waits for the demo between them. Returns the seconds
// both took; nothing when interrupted.
std::optional<double> runInHalves(RoundTrip& trip, std::size_t size) {
    const auto begun = Clock::now();
    if (!trip.run(size / 2)) return std::nullopt;
    std::chrono::duration<double> time = Clock::now() - begun;
    tell("half");
    std::string line;
    std::getline(std::cin, line);
    const auto resumed = Clock::now();
    if (!trip.run(size)) return std::nullopt;
    time += Clock::now() - resumed;
    return time.count();
}

}  // namespace

int runFarEnd() {
    SessionClient session;
    const auto file = session.open("Media", Direction::Read, kFileCapacity);
    const auto fileBack = session.open("Generic", Direction::Write, kFileCapacity);
    const auto pings = session.open("Basic", Direction::Read, kPingCapacity);
    const auto pingsBack = session.open("StringCipher", Direction::Write, kPingCapacity);
    std::atomic<bool> stopped{false};
    std::thread fileEcho([&] { echo(*file, *fileBack, false, stopped); });
    std::thread pingEcho([&] { echo(*pings, *pingsBack, true, stopped); });
    while (!StopSignal::requested() && !inputEnded(200)) {
    }
    stopped = true;
    fileEcho.join();
    pingEcho.join();
    return kOk;
}

int runNearEnd(const DemoEndOptions& end) {
    const StopWithInput stopWithInput;
    const MappedFile file(end.file);
    Announcements announced;
    SessionClient session(announced.clientOptions());
    const auto started = Clock::now();
    const NearStreams streams(session);
    Json result;
    result["seconds_to_up"] = std::chrono::duration<double>(Clock::now() - started).count();
    tell("up");

    std::atomic<bool> stopped{false};
    Pinger pinger(*streams.pings, *streams.pingsBack);
    result["idle"] = pinger.run(stopped, end.seconds);
    std::thread busyPings([&] { result["busy"] = pinger.run(stopped, 3600); });
    RoundTrip trip(file, *streams.file, *streams.fileBack);
    const std::optional<double> seconds = runInHalves(trip, file.size());
    stopped = true;
    busyPings.join();
    if (!seconds) return kInterrupted;

    TransferTally sent;
    sent.add(file.data(), file.size());
    result["bytes"] = file.size();
    result["seconds"] = *seconds;
    result["resent"] = trip.resent();
    result["sent_checksum"] = sent.checksum();
    result["returned_checksum"] = trip.returned().checksum();
    result["announced"] = announced.names();
    tell(result.dump());
    return kOk;
}

}  // namespace vcctl
