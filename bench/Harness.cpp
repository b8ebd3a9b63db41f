#include "Harness.h"

#include <algorithm>
#include <chrono>
#include <string_view>

#include "AllocationCounter.h"

namespace bench {

namespace {

std::vector<SuiteEntry>& suites() {
    static std::vector<SuiteEntry> all;
    return all;
}

double nanosecondsFor(std::uint64_t calls, const std::function<void()>& body) {
    const auto start = std::chrono::steady_clock::now();
    for (std::uint64_t i = 0; i < calls; ++i) body();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
        .count();
}

// The number of calls that take about `nanoseconds`; at least one.
std::uint64_t callsFor(double nanoseconds, const std::function<void()>& body) {
    std::uint64_t calls = 1;
    for (;;) {
        const double taken = nanosecondsFor(calls, body);
        if (taken >= nanoseconds / 10) {
            const double scaled = static_cast<double>(calls) * nanoseconds / taken;
            return std::max<std::uint64_t>(1, static_cast<std::uint64_t>(scaled));
        }
        calls *= 4;
    }
}

void sampleTimed(Sample& sample, double budget, const std::function<void()>& body) {
    const std::uint64_t calls = callsFor(budget, body);
    const double nanoseconds = nanosecondsFor(calls, body);
    sample.set("time", nanoseconds / static_cast<double>(calls), "ns");

    const std::uint64_t counted = std::min<std::uint64_t>(calls, 100);
    AllocationCounter counter;
    for (std::uint64_t i = 0; i < counted; ++i) body();
    const auto seen = counter.read();
    sample.set("allocations", static_cast<double>(seen.count) / static_cast<double>(counted), "");
    sample.set("allocated", static_cast<double>(seen.bytes) / static_cast<double>(counted), "B");
}

}  // namespace

void Sample::set(std::string metric, double value, std::string unit) {
    m_entries.push_back({std::move(metric), value, std::move(unit)});
}

double Sample::value(const std::string& metric) const {
    const auto place = std::find_if(m_entries.begin(), m_entries.end(),
                                    [&](const Entry& entry) { return entry.metric == metric; });
    return place == m_entries.end() ? 0 : place->value;
}

std::uint64_t Suite::scaled(std::uint64_t full) const {
    return quick() ? std::max<std::uint64_t>(1, full / 10) : full;
}

Measurement Suite::measure(std::string name, std::function<void(Sample&)> run) {
    m_measurements.push_back({m_group, std::move(name), std::move(run)});
    return Measurement(m_measurements.size() - 1);
}

Measurement Suite::timed(std::string name, std::function<void()> body) {
    const double budget = quick() ? 5e6 : 50e6;
    return measure(std::move(name), [budget, body = std::move(body)](Sample& sample) {
        sampleTimed(sample, budget, body);
    });
}

void Suite::goal(std::string what, ValueRef value, ValueRef floor, Bounds bounds) {
    m_goals.push_back({m_group, std::move(what), std::move(value), {std::move(floor)}, bounds});
}

void Suite::goal(std::string what, ValueRef value, Bounds bounds) {
    m_goals.push_back({m_group, std::move(what), std::move(value), {}, bounds});
}

const std::vector<SuiteEntry>& allSuites() { return suites(); }

SuiteRegistrar::SuiteRegistrar(const char* name, const char* description, void (*declare)(Suite&)) {
    auto& all = suites();
    const auto place = std::find_if(all.begin(), all.end(), [&](const SuiteEntry& entry) {
        return std::string_view(entry.name) > name;
    });
    all.insert(place, {name, description, declare});
}

}  // namespace bench
