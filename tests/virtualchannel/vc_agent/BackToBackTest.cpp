// Two remote-desktop clients in two namespaces, each with the plug-in library, joined back to back,
// and local processes at both ends. NORVO_BACK_TO_BACK_MESSAGES and NORVO_BACK_TO_BACK_ROUNDS set
// how much is sent and how often the channel goes down; the build target `full_runs` does so.
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
#include "Rounds.h"
#include "SessionObjects.h"
#include "TempDir.h"
#include "TrafficPattern.h"

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::eventually;
using testsupport::monotonicNs;

namespace {

constexpr std::uint32_t kStreamsEachWay = 10;

int numberFrom(const char* variable, int otherwise) {
    const char* const text = std::getenv(variable);
    return text ? std::atoi(text) : otherwise;
}

std::string spaceOf(const std::string& side) { return "nvt" + std::to_string(getpid()) + side; }

// A process of that side of the channel.
ChildProcess on(const std::string& side, const std::string& role,
                const std::vector<std::string>& args) {
    return ChildProcess(role, args, {"NORVO_VDI_NAMESPACE=" + spaceOf(side)});
}

class BackToBackAcrossProcesses : public testing::Test {
protected:
    BackToBackAcrossProcesses() { setActive(true); }
    ~BackToBackAcrossProcesses() override {
        for (auto* each : {&m_left, &m_right}) each->closeInput();
        EXPECT_EQ(m_left.wait(), 0);
        EXPECT_EQ(m_right.wait(), 0);
        for (const auto* side : {"left", "right"}) support::removeSessionObjects(spaceOf(side));
    }

    void setActive(bool active) {
        for (auto* each : {&m_left, &m_right}) {
            each->writeLine(active ? "active 1" : "active 0");
            EXPECT_EQ(each->readLine(), "done");
        }
    }

    testsupport::TempDir m_dir;
    ChildProcess m_left = on("left", "pluginHost", {PLUGIN_LIBRARY, "4", "listen", m_dir / "wire"});
    ChildProcess m_right =
        on("right", "pluginHost", {PLUGIN_LIBRARY, "4", "connect", m_dir / "wire"});
};

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
    RestlessWay(std::uint32_t firstStream, std::string from, std::string to, Progress& progress)
        : m_first(std::to_string(firstStream)),
          m_from(std::move(from)),
          m_to(std::move(to)),
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
        m_writer.emplace(on(m_from, "writeTrafficOn",
                            {m_first, std::to_string(kStreamsEachWay), std::to_string(m_next)}));
        m_next += 100 * testsupport::kBeginnings;
    }
    void beginReader() {
        m_reader.emplace(on(m_to, "readTraffic", {m_first, std::to_string(kStreamsEachWay), "on"}));
        m_listener =
            onEachLine(*m_reader, [this](const std::string& line) { m_progress.take(line); });
    }
    void endReader() {
        m_reader->kill();
        m_listener.join();
        m_reader->wait();
    }

    const std::string m_first;
    const std::string m_from;
    const std::string m_to;
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
    const std::string ways[][3] = {{"0", "left", "right"}, {"10", "right", "left"}};
    Progress progress;
    std::deque<ChildProcess> writers;
    std::deque<ChildProcess> readers;
    std::vector<std::thread> listeners;
    for (const auto& [first, from, to] : ways) {
        auto& writer = writers.emplace_back(on(
            from, "writeTraffic", {first, std::to_string(kStreamsEachWay), std::to_string(each)}));
        auto& reader = readers.emplace_back(
            on(to, "readTraffic", {first, std::to_string(kStreamsEachWay), "all"}));
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
    Progress progress;
    RestlessWay ways[] = {{0, "left", "right", progress}, {10, "right", "left", progress}};
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
        setActive(false);
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 50));
        setActive(true);
    }
    EXPECT_TRUE(flowsFor(0)) << progress.text();
    EXPECT_EQ(progress.complaints(), std::vector<std::string>{});
}
