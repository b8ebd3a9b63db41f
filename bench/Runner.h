// Runs suites and gathers what they found.
#pragma once

#include <map>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "Harness.h"

namespace bench {

struct Options {
    unsigned repeat = 5;
    Settings settings;
    bool progress = false;             // a moving line on standard error
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
    std::string failure;  // empty when every repetition went through
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
    double ratio = 0;  // the value itself when there is no floor
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

// The suite without what the filter excludes; goals that lack a measurement are left out. An empty
// report when nothing is left.
SuiteReport runSuite(const SuiteEntry& entry, const Options& options);

}  // namespace bench
