#include "PathMeasurement.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "CpuTime.h"
#include "LatencyRecorder.h"
#include "PeerProcess.h"

namespace bench {

namespace {

constexpr std::size_t kExpectedRounds = 200000;
// A streaming sender gets an answer for each of this many parts of its window.
constexpr std::size_t kAnswersUnderWay = 4;

struct NearTask {
    std::string name;
    std::size_t answerEvery;  // messages that the far end takes per answer
    double seconds;
};

const PathKind& kindOf(const PathRun& run) {
    const PathKind* kind = findPathKind(run.kind);
    if (!kind) throw std::runtime_error("no such kind of path");
    return *kind;
}

double sleepsOf(pid_t process) {
    double sum = 0;
    std::error_code gone;
    const std::string threads = "/proc/" + std::to_string(process) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads, gone)) {
        std::ifstream status(thread.path() / "status");
        std::string name;
        for (double value = 0; status >> name;) {
            if (name == "voluntary_ctxt_switches:" && status >> value) sum += value;
        }
    }
    return sum;
}

// A path with a process at each end. The near one does its task on start(), and prints its
// results.
class PathSession {
public:
    PathSession(const PathRun& run, const NearTask& task)
        : m_relays(kindOf(run).start(run)),
          m_far(startEnd(PathEnd::Far, run, task)),
          m_near(startEnd(PathEnd::Near, run, task)) {
        waitUntilReady(m_near);
    }
    // Ends the far end first: it would complain about the loss of the near one.
    ~PathSession() { m_far.kill(); }
    PathSession(const PathSession&) = delete;
    PathSession& operator=(const PathSession&) = delete;

    // The numbers that the near end prints.
    std::vector<double> run() {
        m_near.writeLine("go");
        std::istringstream line(m_near.readLine(std::chrono::seconds(60)));
        std::vector<double> numbers;
        for (double number = 0; line >> number;) numbers.push_back(number);
        if (numbers.empty()) throw std::runtime_error("the near end failed");
        return numbers;
    }
    // How often the relays' threads have gone to sleep so far.
    double relaysSleeps() const {
        double sum = 0;
        for (const pid_t process : m_relays->processes()) sum += sleepsOf(process);
        return sum;
    }
    std::size_t relayCount() const { return m_relays->processes().size(); }
    double relaysCpuNanoseconds() const {
        double sum = 0;
        for (const pid_t process : m_relays->processes())
            sum += static_cast<double>(cpuNanosecondsOfProcess(process));
        return sum;
    }

private:
    PeerProcess startEnd(PathEnd end, const PathRun& run, const NearTask& task) const {
        PeerProcess process(
            end == PathEnd::Far ? "path_far" : "path_near",
            {run.kind, m_relays->address(end), std::to_string(run.size), std::to_string(run.answer),
             std::to_string(task.answerEvery), task.name, std::to_string(task.seconds)},
            m_relays->environment(end));
        if (end == PathEnd::Far) waitUntilReady(process);
        return process;
    }

    std::unique_ptr<PathRelays> m_relays;
    PeerProcess m_far;
    PeerProcess m_near;
};

// An end, in its own process.
struct OwnEnd {
    OwnEnd(PathEnd end, const std::vector<std::string>& args)
        : run{args.at(0), "", std::stoul(args.at(2)), std::stoul(args.at(3))},
          hop(kindOf(run).join(end, args.at(1), run)),
          message(run.size, 'x'),
          answer(run.answer, 'y'),
          answerEvery(std::stoul(args.at(4))) {
        say("ready");
    }
    void send() { hop->send(message.data(), run.size); }
    void sendAnswer() { hop->send(answer.data(), run.answer); }
    void receive() { receiveInto(message, run.size); }
    void receiveAnswer() { receiveInto(answer, run.answer); }

    const PathRun run;
    std::unique_ptr<Hop> hop;
    std::string message;
    std::string answer;
    const std::size_t answerEvery;

private:
    void receiveInto(std::string& place, std::size_t size) {
        place.resize(size);
        hop->receive(place);
    }
};

void print(std::initializer_list<double> numbers) {
    for (const double number : numbers) std::printf("%.9g ", number);
    std::puts("");
    std::fflush(stdout);
}

void pingPong(OwnEnd& end, double seconds) {
    LatencyRecorder roundTrips(kExpectedRounds);
    end.send();
    end.receiveAnswer();
    const auto begun = nowNanoseconds();
    const auto warm = begun + static_cast<std::uint64_t>(seconds * 1e8);
    const auto over = begun + static_cast<std::uint64_t>(seconds * 1e9);
    double rounds = 1;
    for (auto start = begun; start < over || roundTrips.count() == 0;) {
        ++rounds;
        end.send();
        end.receiveAnswer();
        const auto finish = nowNanoseconds();
        if (start >= warm) roundTrips.add(finish - start);
        start = finish;
    }
    print({roundTrips.percentile(0.5), roundTrips.percentile(0.99), rounds});
}

// Timed from one answer to another, so that neither the initial filling of the path nor its final
// draining counts.
void stream(OwnEnd& end, double seconds) {
    const std::size_t window = kAnswersUnderWay * end.answerEvery;
    std::size_t sent = 0;
    std::size_t answered = 0;
    const auto step = [&] {
        for (; sent - answered < window; ++sent) end.send();
        end.receiveAnswer();
        answered += end.answerEvery;
    };
    while (answered < window) step();
    const std::size_t before = answered;
    const auto start = nowNanoseconds();
    auto now = start;
    while (now - start < static_cast<std::uint64_t>(seconds * 1e9)) {
        step();
        now = nowNanoseconds();
    }
    const std::size_t after = answered;
    for (; answered < sent; answered += end.answerEvery) end.receiveAnswer();
    print({static_cast<double>(after - before), static_cast<double>(now - start),
           static_cast<double>(answered)});
}

// Times each burst from its first message to its last answer.
void burst(OwnEnd& end, double seconds) {
    constexpr std::uint64_t kBurst = 50'000'000;
    constexpr auto kRest = std::chrono::milliseconds(100);
    const std::size_t window = kAnswersUnderWay * end.answerEvery;
    std::size_t messages = 0;
    std::uint64_t taken = 0;
    const auto over = nowNanoseconds() + static_cast<std::uint64_t>(seconds * 1e9);
    while (nowNanoseconds() < over) {
        std::this_thread::sleep_for(kRest);
        std::size_t sent = 0;
        std::size_t answered = 0;
        const auto start = nowNanoseconds();
        while (nowNanoseconds() - start < kBurst) {
            for (; sent - answered < window; ++sent) end.send();
            end.receiveAnswer();
            answered += end.answerEvery;
        }
        for (; answered < sent; answered += end.answerEvery) end.receiveAnswer();
        taken += nowNanoseconds() - start;
        messages += sent;
    }
    print(
        {static_cast<double>(messages), static_cast<double>(taken), static_cast<double>(messages)});
}

void measureRate(const PathRun& run, const char* task, std::size_t window, double seconds,
                 Sample& sample) {
    const std::size_t answerEvery = window / kAnswersUnderWay;
    PathSession session(run, {task, answerEvery, seconds});
    const double cpuBefore = session.relaysCpuNanoseconds();
    const auto found = session.run();
    const double cpu = session.relaysCpuNanoseconds() - cpuBefore;
    const double rate = found.at(0) * 1e9 / found.at(1);
    sample.set("rate", rate, "msg/s");
    sample.set("MB/s", rate * static_cast<double>(run.size) / 1e6, "MB/s");
    sample.set("cpu", cpu / (kNanosecondsPerMicrosecond * found.at(2)), "µs/msg");
}

}  // namespace

void measurePathLatency(const PathRun& run, double seconds, Sample& sample) {
    PathSession session(run, {"ping", 1, seconds});
    const double cpuBefore = session.relaysCpuNanoseconds();
    const auto found = session.run();
    const double cpu = session.relaysCpuNanoseconds() - cpuBefore;
    const double perOneWay = 2 * kNanosecondsPerMicrosecond;
    sample.set("p50", found.at(0) / perOneWay, "µs");
    sample.set("p99", found.at(1) / perOneWay, "µs");
    sample.set("cpu", cpu / (perOneWay * found.at(2)), "µs/msg");
}

void measurePathStream(const PathRun& run, std::size_t window, double seconds, Sample& sample) {
    measureRate(run, "stream", window, seconds, sample);
}

void measurePathBursts(const PathRun& run, std::size_t window, double seconds, Sample& sample) {
    measureRate(run, "burst", window, seconds, sample);
}

void measureIdlePath(const PathRun& run, double seconds, Sample& sample) {
    PathSession session(run, {"rest", 1, 0});
    session.run();
    // Read threads wait longer when nothing has come for 600 ms.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const double cpuBefore = session.relaysCpuNanoseconds();
    const double sleepsBefore = session.relaysSleeps();
    const auto start = nowNanoseconds();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double cpu = session.relaysCpuNanoseconds() - cpuBefore;
    const auto elapsed = static_cast<double>(nowNanoseconds() - start);
    const double sleeps = session.relaysSleeps() - sleepsBefore;
    sample.set("cpu", 100 * cpu / elapsed, "%");
    sample.set("wake-ups", sleeps * 1e9 / elapsed / static_cast<double>(session.relayCount()),
               "/s");
    session.run();
}

BENCH_ROLE(path_near) {
    try {
        OwnEnd end(PathEnd::Near, args);
        const std::string& task = args.at(5);
        const double seconds = std::stod(args.at(6));
        for (std::string go; std::getline(std::cin, go);)
            (task == "stream" ? stream : task == "burst" ? burst : pingPong)(end, seconds);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: near end: %s\n", args.at(0).c_str(), failure.what());
        return 1;
    }
}

// Runs until killed.
BENCH_ROLE(path_far) {
    try {
        OwnEnd end(PathEnd::Far, args);
        for (std::size_t received = 1;; ++received) {
            end.receive();
            if (received % end.answerEvery == 0) end.sendAnswer();
        }
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: far end: %s\n", args.at(0).c_str(), failure.what());
        return 1;
    }
}

}  // namespace bench
