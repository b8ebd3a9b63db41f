// Local processes that fill and empty streams, each in a process of its own.

#include <atomic>
#include <condition_variable>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "NorvoStreamClient.h"
#include "TrafficPattern.h"

using namespace std::chrono_literals;
using NorvoStreamClient::Client;
using NorvoStreamClient::Direction;
using NorvoStreamClient::Stream;
using testsupport::kBeginnings;
using testsupport::monotonicNs;
using testsupport::TrafficHeader;
using testsupport::trafficMessage;
using testsupport::trafficSize;

namespace {

// A line at a time, from several threads.
void say(const std::string& line) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    testsupport::say(line);
}

// How far the readers have come.
class Window {
public:
    void acknowledge(std::uint32_t stream, std::uint64_t number) {
        std::lock_guard lock(m_mutex);
        m_read[stream] = number;
        m_changed.notify_all();
    }
    bool waitFor(std::uint32_t stream, std::uint64_t number) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, 120s, [&] { return m_read[stream] >= number; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::uint32_t, std::uint64_t> m_read;
};

// The messages 1 to `count`, of any size, at most 32 of them unread.
void writeAll(Stream& stream, std::uint32_t id, std::uint64_t count, Window& window) {
    for (std::uint64_t number = 1; number <= count; ++number) {
        if (number > 32 && !window.waitFor(id, number - 32)) return;
        const auto text = trafficMessage({id, trafficSize(id, number, 1, 1 << 20), number, 0});
        if (!stream.write(text.data(), text.size(), 120s)) return say("failed");
    }
    stream.flush(120s);
}

// Messages from `first`, a beginning, on, one after the other, whatever happens to them.
void writeOn(Stream& stream, std::uint32_t id, std::uint64_t first) {
    for (std::uint64_t number = first;; ++number) {
        const auto size = trafficSize(id, number, sizeof(TrafficHeader), 1 << 14);
        const auto text = trafficMessage({id, size, number, monotonicNs()});
        if (!stream.write(text.data(), text.size(), 2s)) {
            number += kBeginnings - number % kBeginnings - 1;
        }
        std::this_thread::sleep_for(5ms);
    }
}

// Expects the messages 1, 2, 3 ... and says each.
void readAll(Stream& stream, std::uint32_t id, const std::atomic<bool>& ends) {
    std::string text;
    for (std::uint64_t number = 1; !ends;) {
        if (!stream.read(text, 200ms)) continue;
        const bool good =
            text == trafficMessage({id, trafficSize(id, number, 1, 1 << 20), number, 0});
        say((good ? "got " : "bad ") + std::to_string(id) + ' ' + std::to_string(number));
        ++number;
    }
}

// Expects whole messages with rising numbers, and says from time to time how far they are, and
// after each gap when the last message before it was sent.
void readOn(Stream& stream, std::uint32_t id, const std::atomic<bool>& ends) {
    std::string text;
    TrafficHeader last{};
    auto nextWord = std::chrono::steady_clock::now();
    while (!ends) {
        if (!stream.read(text, 200ms)) continue;
        TrafficHeader header{};
        std::memcpy(&header, text.data(), std::min(text.size(), sizeof header));
        const bool good =
            header.stream == id && header.number > last.number && text == trafficMessage(header);
        if (last.number > 0 && header.number != last.number + 1 &&
            header.number % kBeginnings != 0) {
            say("gap " + std::to_string(id) + ' ' + std::to_string(last.number) + ' ' +
                std::to_string(last.sentAtNs));
        }
        last = header;
        if (good && std::chrono::steady_clock::now() < nextWord) continue;
        nextWord = std::chrono::steady_clock::now() + 20ms;
        say((good ? "at " : "bad ") + std::to_string(id) + ' ' + std::to_string(header.number) +
            ' ' + std::to_string(header.sentAtNs));
    }
}

// Runs `each` for every stream, `what` giving its first and how many there are.
template <class Each>
std::vector<std::thread> onStreams(Client& client, Direction direction,
                                   const std::vector<std::string>& what, const Each& each) {
    const auto first = static_cast<std::uint32_t>(std::stoul(what.at(0)));
    const auto count = static_cast<std::uint32_t>(std::stoul(what.at(1)));
    std::vector<std::thread> threads;
    for (std::uint32_t id = first; id < first + count; ++id) {
        threads.emplace_back([&client, direction, id, each] {
            const auto stream = client.openStream("s" + std::to_string(id), direction);
            if (stream) each(*stream, id);
        });
    }
    return threads;
}

}  // namespace

// first stream, streams, messages; standard input: "stream number" for each message that was read
CHILD_ROLE(writeTraffic) {
    Client client;
    Window window;
    const std::uint64_t count = std::stoull(args.at(2));
    auto threads = onStreams(client, Direction::Write, args, [&](Stream& stream, std::uint32_t id) {
        writeAll(stream, id, count, window);
    });
    std::uint32_t stream = 0;
    for (std::uint64_t number = 0; std::cin >> stream >> number;) {
        window.acknowledge(stream, number);
    }
    for (auto& thread : threads) thread.join();
    return 0;
}

// first stream, streams, first number; goes on until it is killed
CHILD_ROLE(writeTrafficOn) {
    Client client;
    const std::uint64_t first = std::stoull(args.at(2));
    auto threads = onStreams(client, Direction::Write, args,
                             [&](Stream& stream, std::uint32_t id) { writeOn(stream, id, first); });
    for (auto& thread : threads) thread.join();
    return 0;
}

// first stream, streams, "all" or "on"; until the end of its input
CHILD_ROLE(readTraffic) {
    Client client;
    std::atomic<bool> ends{false};
    const auto read = args.at(2) == "all" ? readAll : readOn;
    auto threads = onStreams(client, Direction::Read, args,
                             [&](Stream& stream, std::uint32_t id) { read(stream, id, ends); });
    testsupport::hear();
    ends = true;
    for (auto& thread : threads) thread.join();
    return 0;
}
