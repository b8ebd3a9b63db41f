// The measuring harness of norvo_bench.
//
// A suite is one function in its own .cpp, listed in CMakeLists.txt:
//
//     BENCH_SUITE(packets, "cutting messages into packets and joining them") {
//         suite.group("64 KiB at 1500");
//         const auto floor = suite.timed("one vector per packet", [] { ... });
//         const auto ours = suite.timed("cut + join", [] { ... });
//         suite.goal("cut + join", ours["time"], floor["time"], bench::atMost(0.60, 0.40));
//     }
//
// The function only declares; the harness then runs the measurements of each group in turn
// (A B C A B C ...) as often as requested, and compares medians. A measurement sets up and tears
// down what it needs; an exception from it marks it as failed, and the run continues.
//
// For code that runs in a second process, see PeerProcess.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// One named figure of one measurement, for use in a goal.
struct ValueRef {
    std::size_t measurement;
    std::string metric;
};

// The results of one repetition of a measurement.
class Sample {
public:
    struct Entry {
        std::string metric;
        double value;
        std::string unit;
    };
    // Set each metric at most once; every repetition sets the same metrics, in the same units.
    void set(std::string metric, double value, std::string unit);
    const std::vector<Entry>& entries() const { return m_entries; }
    // The value of a metric that has been set.
    double value(const std::string& metric) const;

private:
    std::vector<Entry> m_entries;
};

enum class Relation { AtMost, AtLeast, Report };

// Bounds of a ratio, or of a bare value when nothing is compared.
struct Bounds {
    Relation relation;
    double must;
    double ambition;
};
constexpr Bounds atMost(double must, double ambition) { return {Relation::AtMost, must, ambition}; }
constexpr Bounds atLeast(double must, double ambition) {
    return {Relation::AtLeast, must, ambition};
}
// Shown, never judged.
constexpr Bounds reported() { return {Relation::Report, 0, 0}; }

// Returned by the functions that declare a measurement.
class Measurement {
public:
    explicit Measurement(std::size_t index) : m_index(index) {}
    ValueRef operator[](std::string metric) const { return {m_index, std::move(metric)}; }

private:
    std::size_t m_index;
};

// Options that the user may set.
struct Settings {
    bool quick = false;
    double seconds = 10;  // of traffic in each measurement of flow/
    // An earlier build to compare with; both empty if there is none.
    std::string baselineVcctl;
    std::string baselineLibrary;
};

// Gathers the declarations of one suite.
class Suite {
public:
    struct MeasurementSpec {
        std::string group;
        std::string name;
        std::function<void(Sample&)> run;
    };
    struct GoalSpec {
        std::string group;
        std::string what;
        ValueRef value;
        std::vector<ValueRef> floor;  // at most one; if none, the value itself is judged
        Bounds bounds;
    };

    Suite(std::string name, Settings settings)
        : m_name(std::move(name)), m_settings(std::move(settings)) {}

    const std::string& name() const { return m_name; }
    const Settings& settings() const { return m_settings; }
    bool quick() const { return m_settings.quick; }
    // `full`, or a tenth of it (at least 1) in a quick run.
    std::uint64_t scaled(std::uint64_t full) const;

    // Starts a group: its measurements are interleaved with each other, not with other groups.
    void group(std::string name) { m_group = std::move(name); }

    Measurement measure(std::string name, std::function<void(Sample&)> run);

    // Calls `body` for about 50 ms (5 ms in a quick run). Metrics: "time" in ns per call,
    // "allocations" and "allocated" (bytes) per call.
    Measurement timed(std::string name, std::function<void()> body);

    // A note for the reader of the report, such as what could not be measured here.
    void note(std::string text) { m_notes.push_back(std::move(text)); }

    void goal(std::string what, ValueRef value, ValueRef floor, Bounds bounds);
    void goal(std::string what, ValueRef value, Bounds bounds);

    const std::vector<MeasurementSpec>& measurements() const { return m_measurements; }
    const std::vector<GoalSpec>& goals() const { return m_goals; }
    const std::vector<std::string>& notes() const { return m_notes; }

private:
    std::string m_name;
    Settings m_settings;
    std::string m_group;
    std::vector<MeasurementSpec> m_measurements;
    std::vector<GoalSpec> m_goals;
    std::vector<std::string> m_notes;
};

struct SuiteEntry {
    const char* name;
    const char* description;
    void (*declare)(Suite&);
};

// Every registered suite, by name.
const std::vector<SuiteEntry>& allSuites();

struct SuiteRegistrar {
    SuiteRegistrar(const char* name, const char* description, void (*declare)(Suite&));
};

// Keeps the compiler from removing the computation of `value`.
template <class T>
inline void doNotOptimize(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

}  // namespace bench

#define BENCH_SUITE(name, description)                                              \
    static void benchSuite_##name(::bench::Suite& suite);                           \
    static const ::bench::SuiteRegistrar benchSuiteEntry_##name(#name, description, \
                                                                benchSuite_##name); \
    static void benchSuite_##name([[maybe_unused]] ::bench::Suite& suite)
