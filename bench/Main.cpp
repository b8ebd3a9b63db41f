// norvo_bench: runs the registered suites.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <regex>
#include <string>
#include <vector>

#include "PeerProcess.h"
#include "ReadmeTable.h"
#include "Report.h"
#include "Runner.h"
#include "Supervisor.h"

namespace {

struct CommandLine {
    bench::Options options;
    std::string filter;
    std::string csv;
    bool list = false;
    bool check = false;
    bool readme = false;
};

void addOptions(CLI::App& app, CommandLine& line) {
    auto* filter =
        app.add_option("--filter", line.filter,
                       "Run only what matches this regular expression in suite/group/measurement")
            ->type_name("REGEX");
    app.add_option("--repeat", line.options.repeat, "Repetitions of each measurement")
        ->check(CLI::Range(1u, 1000u))
        ->capture_default_str();
    app.add_option("--csv", line.csv, "Write every figure and goal to this file")
        ->type_name("FILE");
    auto& settings = line.options.settings;
    app.add_option("--seconds", settings.seconds, "Traffic in each measurement of flow/")
        ->check(CLI::Range(1.0, 600.0))
        ->capture_default_str();
    auto* vcctl = app.add_option("--baseline-vcctl", settings.baselineVcctl,
                                 "The vcctl of an earlier build, to compare flow/ with");
    auto* library = app.add_option("--baseline-library", settings.baselineLibrary,
                                   "The plug-in library of that build");
    for (auto* option : {vcctl, library}) option->check(CLI::ExistingFile)->type_name("FILE");
    vcctl->needs(library);
    library->needs(vcctl);
    app.add_flag("--quick", settings.quick, "A tenth of the work: a look, not a verdict");
    app.add_flag("--readme", line.readme,
                 "Measure what README.md shows, and print its table at the end")
        ->excludes(filter);
    app.add_flag("--list", line.list, "Show the suites and what they measure, run nothing");
    app.add_flag("--check", line.check,
                 "Exit with status 1 when a goal that must be met is missed");
}

void listSuites(const bench::Options& options) {
    for (const auto& entry : bench::allSuites()) {
        std::cout << entry.name << ": " << entry.description << '\n';
        bench::Suite suite(entry.name, options.settings);
        entry.declare(suite);
        for (const auto& spec : suite.measurements())
            std::cout << "  " << suite.name() << '/' << spec.group << '/' << spec.name << '\n';
    }
}

// All output of a run for the user.
class Run {
public:
    explicit Run(const CommandLine& line) : m_line(line) {}

    int perform() {
        if (!m_line.csv.empty()) {
            m_csv.open(m_line.csv);
            if (!m_csv) {
                std::cerr << "norvo_bench: cannot write " << m_line.csv << '\n';
                return 2;
            }
        }
        for (const auto& entry : bench::allSuites()) m_running.run(entry, m_line.options, show);
        if (m_reports.empty()) {
            std::cerr << "norvo_bench: nothing matches the filter; --list shows what there is\n";
            return 2;
        }
        return closeFiles() ? verdict() : 2;
    }

    // Reports what has been measured so far, from another thread before the process ends.
    void stop() {
        if (const bench::SuiteReport* partial = m_running.stop()) {
            show(*partial);
            m_reports.push_back(*partial);
        }
        closeFiles();
    }

private:
    static void show(const bench::SuiteReport& report) { bench::printReport(std::cout, report); }

    bool closeFiles() {
        if (m_line.readme) bench::printReadmeTable(std::cout, m_reports);
        std::cout.flush();
        if (!m_csv.is_open()) return true;
        bench::writeCsv(m_csv, m_reports);
        m_csv.close();
        if (!m_csv) std::cerr << "norvo_bench: writing " << m_line.csv << " failed\n";
        return static_cast<bool>(m_csv);
    }

    int verdict() const {
        const auto any = [this](bool (bench::SuiteReport::*is)() const) {
            return std::any_of(m_reports.begin(), m_reports.end(), std::mem_fn(is));
        };
        const bool failed = any(&bench::SuiteReport::failed);
        return failed || (m_line.check && any(&bench::SuiteReport::missed)) ? 1 : 0;
    }

    const CommandLine& m_line;
    std::ofstream m_csv;
    std::vector<bench::SuiteReport> m_reports;
    bench::RunReports m_running{m_reports};
};

// 0 when the command line asks for a run, else the exit status plus 1.
int readCommandLine(CLI::App& app, int argc, char** argv, CommandLine& line) {
    try {
        app.parse(argc, argv);
        if (!line.filter.empty()) line.options.filter.emplace(line.filter);
        if (line.readme) line.options.filter = bench::readmeFilter();
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 1 : 3;
    } catch (const std::regex_error&) {
        std::cerr << "norvo_bench: --filter is not a valid regular expression\n";
        return 3;
    }
    return 0;
}

int run(int argc, char** argv) {
    const std::string sessionNamespace = "nvb" + std::to_string(getpid());
    setenv("NORVO_VDI_NAMESPACE", sessionNamespace.c_str(), 1);
    CommandLine line;
    CLI::App app("Measures the parts of the virtual-channel library beside simpler ones.");
    app.footer(
        "Each group's measurements run in turn, and medians are compared. Times move with the\n"
        "machine; trust the ratios. Exit status: 0 done, 1 a measurement failed (or, with\n"
        "--check, a goal was missed), 2 wrong use.");
    addOptions(app, line);
    if (const int ended = readCommandLine(app, argc, argv, line); ended != 0) return ended - 1;
    if (line.list) {
        listSuites(line.options);
        return 0;
    }
    line.options.progress = isatty(STDERR_FILENO);
    Run whole(line);
    return bench::superviseRun([&whole] { return whole.perform(); }, [&whole] { whole.stop(); });
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::signal(SIGPIPE, SIG_IGN);
        if (testsupport::isChildRole(argc, argv)) {
            if (!bench::endWithTheRun()) return 1;
            return testsupport::runChildRole(argc, argv);
        }
        return run(argc, argv);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "norvo_bench: %s\n", failure.what());
        return 2;
    }
}
