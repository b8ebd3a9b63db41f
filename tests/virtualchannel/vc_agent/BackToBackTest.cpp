// Two hosts with the plug-in library, and local processes at both ends. NORVO_BACK_TO_BACK_MESSAGES
// and NORVO_BACK_TO_BACK_ROUNDS set how much is sent and how often the channel goes down; the build
// target `full_runs` does so.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

#include "ChildProcess.h"
#include "Eventually.h"
#include "HostPair.h"
#include "Rounds.h"
#include "TrafficPattern.h"

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::eventually;
using testsupport::HostPair;
using testsupport::monotonicNs;
using testsupport::Side;

namespace {

constexpr std::uint32_t kStreamsEachWay = 10;

int numberFrom(const char* variable, int otherwise) {
    const char* const text = std::getenv(variable);
    return text ? std::atoi(text) : otherwise;
}

using BackToBackAcrossProcesses = testing::Test;

// What the readers say, by stream: what was read last, and when it had been sent.
class Progress {
public:
    // One line of a reader: "at|got|bad|gap", stream, number, time. Numbers must rise, and nothing
    // may be missing that was sent in a quiet time and is missed before its end.
    void take(const std::string& line) {
        std::istringstream fields(line);
        std::string word;
        std::uint32_t stream = 0;
        std::uint64_t number = 0;
        std::uint64_t sentAt = 0;
        fields >> word >> stream >> number >> sentAt;
        std::lock_guard lock(m_mutex);
        if (word == "gap") {
            if (sentAt > m_quietSince) m_complaints.push_back(line);
            return;
        }
        auto& last = m_last[stream];
        if (word == "bad" || number <= last.first) m_complaints.push_back(line);
        last = {number, sentAt};
    }
    // Nobody disturbs the traffic from now on / any more.
    void beginQuietTime(std::uint64_t now) {
        std::lock_guard lock(m_mutex);
        m_quietSince = now;
    }
    void endQuietTime() { beginQuietTime(std::numeric_limits<std::uint64_t>::max()); }
    bool allSentAfter(std::uint64_t time) const {
        return areAll([&](const auto& last) { return last.second > time; });
    }
    bool allAreAt(std::uint64_t number) const {
        return areAll([&](const auto& last) { return last.first == number; });
    }
    std::vector<std::string> complaints() const {
        std::lock_guard lock(m_mutex);
        return m_complaints;
    }
    std::string text() const {
        std::lock_guard lock(m_mutex);
        std::string text;
        for (const auto& [stream, last] : m_last) {
            text += std::to_string(stream) + ": " + std::to_string(last.first) + ", ";
        }
        return text;
    }

private:
    template <class Predicate>
    bool areAll(const Predicate& predicate) const {
        std::lock_guard lock(m_mutex);
        return m_last.size() == 2 * kStreamsEachWay &&
               std::all_of(m_last.begin(), m_last.end(),
                           [&](const auto& entry) { return predicate(entry.second); });
    }

    mutable std::mutex m_mutex;
    std::map<std::uint32_t, std::pair<std::uint64_t, std::uint64_t>> m_last;
    std::vector<std::string> m_complaints;
    std::uint64_t m_quietSince = std::numeric_limits<std::uint64_t>::max();
};

template <class Each>
std::thread onEachLine(ChildProcess& reader, Each each) {
    return std::thread([&reader, each] {
        for (std::string line; !(line = reader.readLine(180s)).empty();) each(line);
    });
}

// One way: processes on two sides that can be killed and begun again.
class RestlessWay {
public:
    RestlessWay(HostPair& hosts, std::uint32_t firstStream, Side from, Side to, Progress& progress)
        : m_hosts(hosts),
          m_first(std::to_string(firstStream)),
          m_from(from),
          m_to(to),
          m_progress(progress) {
        beginWriter();
        beginReader();
    }
    ~RestlessWay() {
        m_writer->kill();
        endReader();
    }
    void replaceWriter() {
        m_writer->kill();
        m_writer->wait();
        beginWriter();
    }
    void replaceReader() {
        endReader();
        beginReader();
    }

private:
    void beginWriter() {
        m_writer.emplace(
            m_hosts.run(m_from, "writeTrafficOn",
                        {m_first, std::to_string(kStreamsEachWay), std::to_string(m_next)}));
        m_next += 100 * testsupport::kBeginnings;
    }
    void beginReader() {
        m_reader.emplace(
            m_hosts.run(m_to, "readTraffic", {m_first, std::to_string(kStreamsEachWay), "on"}));
        m_listener =
            onEachLine(*m_reader, [this](const std::string& line) { m_progress.take(line); });
    }
    void endReader() {
        m_reader->kill();
        m_listener.join();
        m_reader->wait();
    }

    HostPair& m_hosts;
    const std::string m_first;
    const Side m_from;
    const Side m_to;
    Progress& m_progress;
    std::uint64_t m_next = testsupport::kBeginnings;
    std::optional<ChildProcess> m_writer;
    std::optional<ChildProcess> m_reader;
    std::thread m_listener;
};

}  // namespace

TEST_F(BackToBackAcrossProcesses, EveryMessageOfTwentyStreamsArrivesWholeAndInOrder) {
    const auto each = static_cast<std::uint64_t>(
        numberFrom("NORVO_BACK_TO_BACK_MESSAGES", testsupport::rounds(1000)) / 20);
    const struct {
        std::string first;
        Side from;
        Side to;
    } ways[] = {{"0", Side::Near, Side::Far}, {"10", Side::Far, Side::Near}};
    HostPair hosts;
    Progress progress;
    std::deque<ChildProcess> writers;
    std::deque<ChildProcess> readers;
    std::vector<std::thread> listeners;
    for (const auto& [first, from, to] : ways) {
        auto& writer = writers.emplace_back(hosts.run(
            from, "writeTraffic", {first, std::to_string(kStreamsEachWay), std::to_string(each)}));
        auto& reader = readers.emplace_back(
            hosts.run(to, "readTraffic", {first, std::to_string(kStreamsEachWay), "all"}));
        listeners.push_back(onEachLine(reader, [&](const std::string& line) {
            progress.take(line);
            writer.writeLine(line.substr(line.find(' ') + 1));
        }));
    }
    eventually([&] { return progress.allAreAt(each) || !progress.complaints().empty(); },
               60s + each * 100ms);
    EXPECT_TRUE(progress.allAreAt(each)) << progress.text();
    for (auto& reader : readers) reader.closeInput();
    for (auto& listener : listeners) listener.join();
    for (auto& writer : writers) {
        writer.closeInput();
        EXPECT_EQ(writer.wait(), 0);
    }
    EXPECT_EQ(progress.complaints(), std::vector<std::string>{});
}

TEST_F(BackToBackAcrossProcesses, StreamsOutliveLostChannelsAndDyingLocalProcesses) {
    HostPair hosts;
    Progress progress;
    RestlessWay ways[] = {{hosts, 0, Side::Near, Side::Far, progress},
                          {hosts, 10, Side::Far, Side::Near, progress}};
    std::mt19937 random(7);
    const int rounds = numberFrom("NORVO_BACK_TO_BACK_ROUNDS", testsupport::rounds(6) + 1);
    const auto flowsFor = [&](std::uint64_t nanoseconds) {
        const auto fresh = monotonicNs() + nanoseconds;
        return eventually([&] { return progress.allSentAfter(fresh); });
    };
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        ASSERT_TRUE(flowsFor(0)) << progress.text();
        progress.beginQuietTime(monotonicNs());
        ASSERT_TRUE(flowsFor(100'000'000)) << progress.text();
        progress.endQuietTime();
        auto& way = ways[random() % 2];
        const auto victim = random() % 3;
        if (victim == 0) way.replaceWriter();
        if (victim == 1) way.replaceReader();
        hosts.reconnect();
    }
    EXPECT_TRUE(flowsFor(0)) << progress.text();
    EXPECT_EQ(progress.complaints(), std::vector<std::string>{});
}
