// Runs suites and gathers their results.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "Harness.h"

namespace bench {

struct Options {
    unsigned repeat = 5;
    Settings settings;
    bool progress = false;             // show a progress line on standard error
    std::optional<std::regex> filter;  // searched in "suite/group/measurement"
};

// The repetitions of one metric.
struct Series {
    std::string metric;
    std::string unit;
    std::vector<double> values;
    double median() const;
    double lowest() const;
    double highest() const;
};

struct Outcome {
    std::string group;
    std::string name;
    std::vector<Series> series;
    std::string failure;  // empty when every repetition succeeded
    const Series* find(const std::string& metric) const;
};

enum class Verdict { Missed, Met, Ambition, Reported };

struct Judgement {
    std::string group;
    std::string what;
    std::string unit;
    std::string floorName;  // empty when the value itself is judged
    double value = 0;
    double floor = 0;
    double ratio = 0;   // of the medians; the value itself when there is no floor
    double lowest = 0;  // of the ratio in any repetition, and the highest
    double highest = 0;
    Bounds bounds{};
    Verdict verdict = Verdict::Missed;
};

struct SuiteReport {
    std::string name;
    std::vector<Outcome> outcomes;
    std::vector<Judgement> judgements;
    std::vector<std::string> notes;
    bool failed() const;  // a measurement failed
    bool missed() const;  // a "must" was missed
};

// Gathers the reports of a run while it is in progress.
class RunReports {
public:
    explicit RunReports(std::vector<SuiteReport>& finished) : m_finished(finished) {}

    // Runs the suite without what the filter excludes; goals that lack a measurement are left out.
    // Adds nothing if nothing is left. `show` is called with the complete report.
    void run(const SuiteEntry& entry, const Options& options,
             const std::function<void(const SuiteReport&)>& show);
    // From another thread, before the process ends: the results so far of the running suite,
    // if any. No further sample is taken.
    const SuiteReport* stop();

private:
    struct Running;
    void measure(Running& running, const Options& options);
    void take(const Suite::MeasurementSpec& spec, Outcome& outcome);

    std::vector<SuiteReport>& m_finished;
    std::mutex m_mutex;  // held while a report is added to, and forever after stop()
    Running* m_running = nullptr;
};

}  // namespace bench
