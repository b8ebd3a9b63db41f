#include "Runner.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <limits>

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

// Repetitions are interleaved, so those with the same index belong together.
void compare(Judgement& result, const Series& value, const Series* floor) {
    result.lowest = std::numeric_limits<double>::max();
    for (std::size_t i = 0; i < value.values.size(); ++i) {
        double ratio = value.values[i];
        if (floor && i < floor->values.size()) ratio /= floor->values[i];
        result.lowest = std::min(result.lowest, ratio);
        result.highest = std::max(result.highest, ratio);
    }
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
    const Series* floor = nullptr;
    if (!goal.floor.empty()) {
        floor = findSeries(table, goal.floor.front());
        if (!floor || floor->median() == 0) return result;
        result.floorName = table[goal.floor.front().measurement]->name;
        result.floor = floor->median();
        result.ratio = result.value / result.floor;
    }
    compare(result, *value, floor);
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

struct RunReports::Running {
    Running(const SuiteEntry& entry, const Options& options) : suite(entry.name, options.settings) {
        entry.declare(suite);
        groups = wantedByGroup(suite, options);
        for (const auto& members : groups) wanted += members.size();
        report = {suite.name(), {}, {}, suite.notes()};
        report.outcomes.reserve(wanted);
        table.resize(suite.measurements().size(), nullptr);
        for (const auto& members : groups) {
            for (const std::size_t index : members) {
                const auto& spec = suite.measurements()[index];
                report.outcomes.push_back({spec.group, spec.name, {}, {}});
                table[index] = &report.outcomes.back();
            }
        }
    }
    void judge() {
        for (const auto& goal : suite.goals()) {
            if (isComplete(goal, table)) report.judgements.push_back(judgeGoal(goal, table));
        }
    }

    Suite suite;
    std::vector<std::vector<std::size_t>> groups;
    std::size_t wanted = 0;
    SuiteReport report;
    OutcomeTable table;
};

void RunReports::take(const Suite::MeasurementSpec& spec, Outcome& outcome) {
    if (!outcome.failure.empty()) return;
    Sample sample;
    std::string failure;
    try {
        spec.run(sample);
    } catch (const std::exception& error) {
        failure = error.what();
    }
    const std::lock_guard lock(m_mutex);
    if (failure.empty()) {
        addSample(outcome, sample);
    } else {
        outcome.failure = failure;
    }
}

void RunReports::measure(Running& running, const Options& options) {
    Progress progress(options.progress, running.wanted * options.repeat);
    for (const auto& members : running.groups) {
        for (unsigned round = 0; round < options.repeat; ++round) {
            for (const std::size_t index : members) {
                const auto& spec = running.suite.measurements()[index];
                progress.step(fullName(running.suite, spec));
                take(spec, *running.table[index]);
            }
        }
    }
}

void RunReports::run(const SuiteEntry& entry, const Options& options,
                     const std::function<void(const SuiteReport&)>& show) {
    Running running(entry, options);
    if (running.wanted == 0) return;
    {
        const std::lock_guard lock(m_mutex);
        m_running = &running;
    }
    measure(running, options);
    const std::lock_guard lock(m_mutex);
    m_running = nullptr;
    running.judge();
    show(running.report);
    m_finished.push_back(std::move(running.report));
}

const SuiteReport* RunReports::stop() {
    m_mutex.lock();
    if (!m_running) return nullptr;
    auto& outcomes = m_running->report.outcomes;
    const auto isMissing = [](const Outcome& outcome) {
        return outcome.series.empty() && outcome.failure.empty();
    };
    if (std::all_of(outcomes.begin(), outcomes.end(), isMissing)) return nullptr;
    // Measurements that have not had their turn are left out.
    for (Outcome*& outcome : m_running->table) {
        if (outcome && outcome->series.empty()) outcome = nullptr;
    }
    m_running->judge();
    return &m_running->report;
}

}  // namespace bench
