#include "Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ostream>

namespace bench {

namespace {

using Row = std::vector<std::string>;

// Four significant digits, thousands and millions as k and M.
std::string shortNumber(double value) {
    const double size = std::fabs(value);
    const char* suffix = size >= 1e6 ? " M" : size >= 1e4 ? " k" : "";
    const double shown = size >= 1e6 ? value / 1e6 : size >= 1e4 ? value / 1e3 : value;
    char text[32];
    std::snprintf(text, sizeof text, "%.4g%s", shown, suffix);
    return text;
}

std::string withUnit(double value, const std::string& unit) {
    return shortNumber(value) + (unit.empty() ? "" : " " + unit);
}

std::size_t shownWidth(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

void printTable(std::ostream& out, const std::vector<Row>& rows, std::size_t leftAligned) {
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], shownWidth(row[i]));
    }
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string padding(widths[i] - shownWidth(row[i]), ' ');
            line += "  " + (i < leftAligned ? row[i] + padding : padding + row[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

std::string medianAndRange(const Series& series) {
    std::string median = withUnit(series.median(), series.unit);
    if (series.lowest() == series.highest()) return median;
    return median + " [" + shortNumber(series.lowest()) + " – " + shortNumber(series.highest()) +
           "]";
}

std::vector<std::string> metricsOf(const std::vector<Outcome>& outcomes, const std::string& group) {
    std::vector<std::string> metrics;
    for (const Outcome& outcome : outcomes) {
        if (outcome.group != group) continue;
        for (const Series& series : outcome.series) {
            if (std::find(metrics.begin(), metrics.end(), series.metric) == metrics.end())
                metrics.push_back(series.metric);
        }
    }
    return metrics;
}

Row outcomeRow(const Outcome& outcome, const std::vector<std::string>& metrics) {
    Row row{outcome.name};
    for (const std::string& metric : metrics) {
        const Series* series = outcome.find(metric);
        row.push_back(series ? medianAndRange(*series) : "");
    }
    return row;
}

void printGroup(std::ostream& out, const std::vector<Outcome>& outcomes, const std::string& group) {
    const auto metrics = metricsOf(outcomes, group);
    const bool hasFigures = !metrics.empty();
    std::vector<Row> rows{{group}};
    rows.front().insert(rows.front().end(), metrics.begin(), metrics.end());
    for (const Outcome& outcome : outcomes) {
        if (outcome.group == group && !outcome.series.empty())
            rows.push_back(outcomeRow(outcome, metrics));
    }
    if (hasFigures) printTable(out, rows, 1);
    bool hasFailures = false;
    for (const Outcome& outcome : outcomes) {
        if (outcome.group != group || outcome.failure.empty()) continue;
        out << "  FAILED: " << outcome.name << ": " << outcome.failure << '\n';
        hasFailures = true;
    }
    if (hasFigures || hasFailures) out << '\n';
}

void printOutcomes(std::ostream& out, const std::vector<Outcome>& outcomes) {
    for (auto next = outcomes.begin(); next != outcomes.end();) {
        const std::string& group = next->group;
        printGroup(out, outcomes, group);
        next = std::find_if(next, outcomes.end(),
                            [&](const Outcome& outcome) { return outcome.group != group; });
    }
}

const char* sign(Relation relation) { return relation == Relation::AtMost ? "<= " : ">= "; }

const char* nameOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::Missed:
            return "MISSED";
        case Verdict::Met:
            return "met";
        case Verdict::Ambition:
            return "met, ambition too";
        case Verdict::Reported:
            return "";
    }
    return "";
}

std::string ratioAndRange(const Judgement& j) {
    if (j.floorName.empty()) return "";
    std::string ratio = shortNumber(j.ratio);
    if (j.lowest == j.highest) return ratio;
    return ratio + " [" + shortNumber(j.lowest) + " – " + shortNumber(j.highest) + "]";
}

void addJudgement(std::vector<Row>& rows, const Judgement& j) {
    const bool judged = j.bounds.relation != Relation::Report;
    rows.push_back({j.group, j.what, j.floorName, withUnit(j.value, j.unit),
                    j.floorName.empty() ? "" : withUnit(j.floor, j.unit), ratioAndRange(j),
                    judged ? sign(j.bounds.relation) + shortNumber(j.bounds.must) : "",
                    judged ? shortNumber(j.bounds.ambition) : "", nameOf(j.verdict)});
}

std::string exact(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", value);
    return text;
}

std::string quoted(const std::string& field) {
    if (field.find_first_of(",\"\n") == std::string::npos) return field;
    std::string result = "\"";
    for (const char c : field) result += c == '"' ? std::string("\"\"") : std::string(1, c);
    return result + '"';
}

void writeRow(std::ostream& out, const Row& row) {
    for (std::size_t i = 0; i < row.size(); ++i) out << (i ? "," : "") << quoted(row[i]);
    out << '\n';
}

void writeOutcome(std::ostream& out, const std::string& suite, const Outcome& outcome) {
    for (const Series& s : outcome.series) {
        writeRow(out, {"measured", suite, outcome.group, outcome.name, s.metric, s.unit,
                       exact(s.median()), exact(s.lowest()), exact(s.highest()),
                       std::to_string(s.values.size()), "", "", "", "", "", "", ""});
    }
}

void writeJudgement(std::ostream& out, const std::string& suite, const Judgement& j) {
    const bool judged = j.bounds.relation != Relation::Report;
    const bool compared = !j.floorName.empty();
    writeRow(out, {"goal", suite, j.group, j.what, "", j.unit, exact(j.value), exact(j.lowest),
                   exact(j.highest), "", j.floorName, compared ? exact(j.floor) : "",
                   compared ? exact(j.ratio) : "",
                   judged ? (j.bounds.relation == Relation::AtMost ? "<=" : ">=") : "",
                   judged ? exact(j.bounds.must) : "", judged ? exact(j.bounds.ambition) : "",
                   nameOf(j.verdict)});
}

}  // namespace

void printReport(std::ostream& out, const SuiteReport& report) {
    out << report.name << ": median [lowest – highest]\n\n";
    printOutcomes(out, report.outcomes);
    for (const std::string& note : report.notes) out << "  note: " << note << '\n';
    if (!report.notes.empty()) out << '\n';
    if (!report.judgements.empty()) {
        std::vector<Row> rows{{"group", "goal", "compared with", "value", "floor", "ratio", "must",
                               "ambition", "verdict"}};
        for (const Judgement& judgement : report.judgements) addJudgement(rows, judgement);
        printTable(out, rows, 3);
        out << '\n';
    }
    out.flush();
}

void writeCsv(std::ostream& out, const std::vector<SuiteReport>& reports) {
    writeRow(out, {"record", "suite", "group", "name", "metric", "unit", "median", "min", "max",
                   "repetitions", "floor", "floor_value", "ratio", "relation", "must", "ambition",
                   "verdict"});
    for (const SuiteReport& report : reports) {
        for (const Outcome& outcome : report.outcomes) writeOutcome(out, report.name, outcome);
        for (const Judgement& judgement : report.judgements)
            writeJudgement(out, report.name, judgement);
    }
}

}  // namespace bench
