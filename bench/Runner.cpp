#include "Runner.h"

#include <algorithm>
#include <cstdio>
#include <exception>

namespace bench {

namespace {

std::string fullName(const Suite& suite, const Suite::MeasurementSpec& spec) {
    return suite.name() + '/' + spec.group + '/' + spec.name;
}

bool isWanted(const Suite& suite, const Suite::MeasurementSpec& spec, const Options& options) {
    return !options.filter || std::regex_search(fullName(suite, spec), *options.filter);
}

class Progress {
public:
    Progress(bool enabled, std::size_t total) : m_enabled(enabled), m_total(total) {}
    ~Progress() {
        if (m_enabled) std::fputs("\r\033[K", stderr);
    }
    void step(const std::string& what) {
        ++m_done;
        if (m_enabled)
            std::fprintf(stderr, "\r\033[K[%zu/%zu] %.90s", m_done, m_total, what.c_str());
    }

private:
    bool m_enabled;
    std::size_t m_total;
    std::size_t m_done = 0;
};

void addSample(Outcome& outcome, const Sample& sample) {
    for (const auto& entry : sample.entries()) {
        auto place = std::find_if(outcome.series.begin(), outcome.series.end(),
                                  [&](const Series& s) { return s.metric == entry.metric; });
        if (place == outcome.series.end()) {
            outcome.series.push_back({entry.metric, entry.unit, {}});
            place = outcome.series.end() - 1;
        }
        place->values.push_back(entry.value);
    }
}

void runOnce(const Suite::MeasurementSpec& spec, Outcome& outcome) {
    if (!outcome.failure.empty()) return;
    try {
        Sample sample;
        spec.run(sample);
        addSample(outcome, sample);
    } catch (const std::exception& failure) {
        outcome.failure = failure.what();
    }
}

bool isReached(const Bounds& bounds, double ratio, double limit) {
    return bounds.relation == Relation::AtMost ? ratio <= limit : ratio >= limit;
}

Verdict judge(const Bounds& bounds, double ratio) {
    if (bounds.relation == Relation::Report) return Verdict::Reported;
    if (isReached(bounds, ratio, bounds.ambition)) return Verdict::Ambition;
    return isReached(bounds, ratio, bounds.must) ? Verdict::Met : Verdict::Missed;
}

// The outcomes by the index of their measurement; null where the filter left one out.
using OutcomeTable = std::vector<Outcome*>;

const Series* findSeries(const OutcomeTable& table, const ValueRef& ref) {
    const Outcome* outcome = table.at(ref.measurement);
    return outcome && outcome->failure.empty() ? outcome->find(ref.metric) : nullptr;
}

Judgement judgeGoal(const Suite::GoalSpec& goal, const OutcomeTable& table) {
    Judgement result;
    result.group = goal.group;
    result.what = goal.what;
    result.bounds = goal.bounds;
    const Series* value = findSeries(table, goal.value);
    if (!value) return result;
    result.unit = value->unit;
    result.value = result.ratio = value->median();
    if (!goal.floor.empty()) {
        const Series* floor = findSeries(table, goal.floor.front());
        if (!floor || floor->median() == 0) return result;
        result.floorName = table[goal.floor.front().measurement]->name;
        result.floor = floor->median();
        result.ratio = result.value / result.floor;
    }
    result.verdict = judge(goal.bounds, result.ratio);
    return result;
}

bool isComplete(const Suite::GoalSpec& goal, const OutcomeTable& table) {
    return table.at(goal.value.measurement) &&
           (goal.floor.empty() || table.at(goal.floor.front().measurement));
}

// Indices of the wanted measurements, one list per group, groups in order of declaration.
std::vector<std::vector<std::size_t>> wantedByGroup(const Suite& suite, const Options& options) {
    std::vector<std::vector<std::size_t>> groups;
    const auto& specs = suite.measurements();
    for (std::size_t i = 0; i < specs.size(); ++i) {
        if (!isWanted(suite, specs[i], options)) continue;
        const auto place = std::find_if(groups.begin(), groups.end(), [&](const auto& members) {
            return specs[members.front()].group == specs[i].group;
        });
        if (place == groups.end()) {
            groups.push_back({i});
        } else {
            place->push_back(i);
        }
    }
    return groups;
}

}  // namespace

double Series::median() const {
    auto sorted = values;
    std::sort(sorted.begin(), sorted.end());
    const auto middle = sorted.size() / 2;
    if (sorted.empty()) return 0;
    return sorted.size() % 2 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

double Series::lowest() const { return *std::min_element(values.begin(), values.end()); }

double Series::highest() const { return *std::max_element(values.begin(), values.end()); }

const Series* Outcome::find(const std::string& metric) const {
    const auto place = std::find_if(series.begin(), series.end(),
                                    [&](const Series& s) { return s.metric == metric; });
    return place == series.end() ? nullptr : &*place;
}

bool SuiteReport::failed() const {
    return std::any_of(outcomes.begin(), outcomes.end(),
                       [](const Outcome& outcome) { return !outcome.failure.empty(); });
}

bool SuiteReport::missed() const {
    return std::any_of(judgements.begin(), judgements.end(),
                       [](const Judgement& j) { return j.verdict == Verdict::Missed; });
}

SuiteReport runSuite(const SuiteEntry& entry, const Options& options) {
    Suite suite(entry.name, options.settings);
    entry.declare(suite);
    const auto groups = wantedByGroup(suite, options);
    std::size_t wanted = 0;
    for (const auto& members : groups) wanted += members.size();

    SuiteReport report{suite.name(), {}, {}, suite.notes()};
    report.outcomes.reserve(wanted);
    OutcomeTable table(suite.measurements().size(), nullptr);
    for (const auto& members : groups) {
        for (const std::size_t index : members) {
            const auto& spec = suite.measurements()[index];
            report.outcomes.push_back({spec.group, spec.name, {}, {}});
            table[index] = &report.outcomes.back();
        }
    }
    Progress progress(options.progress, wanted * options.repeat);
    for (const auto& members : groups) {
        for (unsigned round = 0; round < options.repeat; ++round) {
            for (const std::size_t index : members) {
                progress.step(fullName(suite, suite.measurements()[index]));
                runOnce(suite.measurements()[index], *table[index]);
            }
        }
    }
    for (const auto& goal : suite.goals()) {
        if (isComplete(goal, table)) report.judgements.push_back(judgeGoal(goal, table));
    }
    return report;
}

}  // namespace bench
