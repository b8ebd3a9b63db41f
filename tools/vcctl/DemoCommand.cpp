// vcctl demo: a whole session on this machine, end to end.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>

#include "CommandError.h"
#include "CommandLine.h"
#include "DemoEnds.h"
#include "File.h"
#include "Output.h"
#include "OwnPath.h"
#include "Progress.h"
#include "SessionObjects.h"
#include "StopSignal.h"
#include "Subprocess.h"

namespace vcctl {

namespace {

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct DemoOptions {
    std::string file;
    std::string kind = "tcp";
    std::string pluginPath;
    double seconds = 4;
};

// A transport's approximate throughput per second, there and back: limited by its pauses, or by
// an ordinary machine.
double bytesPerSecond(const std::string& kind) {
    return kind == "citrix" ? 16.2e6 : kind == "rdp" ? 4.8e6 : kind == "vmware" ? 0.97e6 : 200e6;
}

// Bytes of the generated file: 64 MiB, or what the transport carries in half of the time if less.
std::size_t generatedSize(const std::string& kind, double duration) {
    constexpr std::size_t kMost = 64u << 20;
    return std::min(kMost, static_cast<std::size_t>(duration * bytesPerSecond(kind) / 2));
}

// A temporary folder for the demo's files and its hosts' logs, and the two session namespaces; the
// destructor removes all of it.
class Workplace {
public:
    Workplace() {
        std::string name = (std::filesystem::temp_directory_path() / "vcctl-demo-XXXXXX").string();
        if (!mkdtemp(name.data())) throw systemError("cannot make a temporary folder", errno);
        m_folder = name;
    }
    ~Workplace() {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
        for (const char* side : {"a", "b"}) {
            support::removeSessionObjects(sessionNamespace(side));
        }
    }
    Workplace(const Workplace&) = delete;
    Workplace& operator=(const Workplace&) = delete;

    static std::string sessionNamespace(const std::string& side) {
        return "demo" + std::to_string(getpid()) + side;
    }
    std::vector<std::string> environment(const std::string& side) const {
        const auto home = m_folder / side;
        std::filesystem::create_directories(home);
        return {"NORVO_VDI_NAMESPACE=" + sessionNamespace(side), "HOME=" + home.string()};
    }

    std::string generateFile(std::size_t size) const {
        std::string path = (m_folder / "file").string();
        const File file(std::fopen(path.c_str(), "wbe"));
        std::mt19937_64 random(20231107);
        std::vector<std::uint64_t> block(1u << 13);
        for (std::size_t done = 0; file && done < size; done += block.size() * sizeof block[0]) {
            std::generate(block.begin(), block.end(), std::ref(random));
            const std::size_t part = std::min(size - done, block.size() * sizeof block[0]);
            if (std::fwrite(block.data(), 1, part, file.get()) != part) break;
        }
        if (!file || std::fflush(file.get()) != 0 ||
            std::ftell(file.get()) != static_cast<long>(size)) {
            throw systemError("cannot write " + path, errno);
        }
        return path;
    }

private:
    std::filesystem::path m_folder;
};

// Reads one line from a child; the user can stop the demo meanwhile.
std::string lineOf(support::Subprocess& child, const std::string& what, milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        StopSignal::throwIfRequested();
        std::string line = child.readLine(milliseconds(100));
        if (!line.empty()) return line;
        if (const int status = child.wait(milliseconds(0)); status >= 0) {
            throw CommandError(what + " ended early (exit code " + std::to_string(status) + ")");
        }
    }
    throw CommandError(what + " did not answer in time");
}

void expectLine(support::Subprocess& child, const std::string& what, const std::string& start,
                milliseconds timeout) {
    const std::string line = lineOf(child, what, timeout);
    if (line.rfind(start, 0) != 0) throw CommandError(what + ": " + line);
}

class Demo {
public:
    explicit Demo(DemoOptions options) : m_options(std::move(options)) {}

    int run() {
        const std::string file =
            m_options.file.empty()
                ? m_place.generateFile(generatedSize(m_options.kind, m_options.seconds))
                : std::filesystem::absolute(m_options.file).string();
        const double forFile =
            static_cast<double>(std::filesystem::file_size(file)) / bytesPerSecond(m_options.kind);
        const double idle = std::max(m_options.seconds / 2, m_options.seconds - forFile);
        startHosts();
        support::Subprocess far(end({"far"}), m_place.environment("b"));
        support::Subprocess near(end({"near", file, std::to_string(idle)}),
                                 m_place.environment("a"));
        expectLine(near, "the near process", "up", seconds(30));
        say("four streams are up; small messages through Basic and back through StringCipher, "
            "then the file through Media and back through Generic");
        const auto patience = milliseconds(600'000 + static_cast<long>(forFile * 10'000));
        expectLine(near, "the near process", "half", patience);
        reconnect();
        near.writeLine("go");
        const Json result = Json::parse(lineOf(near, "the near process", patience));
        far.closeInput();
        far.wait(seconds(5));
        near.wait(seconds(5));
        stopHosts();
        return report(result);
    }

private:
    static void say(const std::string& text) {
        print(text + '\n');
        flushOut();
    }

    std::vector<std::string> end(std::vector<std::string> args) const {
        args.insert(args.begin(), {support::ownPath(), "demo-end"});
        return args;
    }

    std::unique_ptr<support::Subprocess> startHost(const std::string& side, const std::string& how,
                                                   const std::string& place) {
        std::vector<std::string> argv{
            support::ownPath(), "host", "--kind", m_options.kind, how, place, "--end-with-input"};
        if (!m_options.pluginPath.empty())
            argv.insert(argv.end(), {"--library", m_options.pluginPath});
        return std::make_unique<support::Subprocess>(argv, m_place.environment(side));
    }

    void startHosts() {
        const auto begun = Clock::now();
        m_listener = startHost("a", "--listen", "127.0.0.1:0");
        const std::string line = lineOf(*m_listener, "the first host", seconds(10));
        const std::string address = line.substr(line.rfind(' ') + 1);
        m_connector = startHost("b", "--connect", address);
        expectLine(*m_connector, "the second host", "joined", seconds(10));
        const std::chrono::duration<double, std::milli> took = Clock::now() - begun;
        say(fmt::format("two hosts of kind {} joined over {} after {:.0f} ms", m_options.kind,
                        address, took.count()));
    }

    void reconnect() {
        const auto begun = Clock::now();
        m_connector->signal(SIGHUP);
        expectLine(*m_connector, "the second host", "left", seconds(10));
        expectLine(*m_connector, "the second host", "joined", seconds(10));
        const std::chrono::duration<double, std::milli> took = Clock::now() - begun;
        say(fmt::format(
            "half of the file is back; dropped the connection, joined again after {:.0f} ms",
            took.count()));
    }

    void stopHosts() {
        for (auto* host : {m_connector.get(), m_listener.get()}) {
            host->signal(SIGTERM);
            if (const int status = host->wait(seconds(10)); status != 0) {
                throw CommandError("a host ended with exit code " + std::to_string(status));
            }
        }
    }

    static std::string latencyLine(const std::string& when, const Json& ping) {
        return fmt::format("  {:<14} {:>7} {:>9.1f} {:>9.1f} {:>9.1f} {:>9.1f} {:>6}\n", when,
                           ping["count"].get<std::uint64_t>(), ping["p50"].get<double>(),
                           ping["p90"].get<double>(), ping["p99"].get<double>(),
                           ping["max"].get<double>(), ping["lost"].get<std::uint64_t>());
    }

    // Collapses consecutive repeats.
    static std::string announcedText(const Json& names) {
        std::string text;
        std::string last;
        for (const auto& name : names) {
            if (name == last) continue;
            last = name;
            text += ' ' + last;
        }
        return text;
    }

    static int report(const Json& result) {
        const double bytes = result["bytes"];
        const double time = result["seconds"];
        const bool whole = result["sent_checksum"] == result["returned_checksum"];
        print(fmt::format("\nstreams      up {:.0f} ms after the local process started\n",
                          result["seconds_to_up"].get<double>() * 1000));
        print(fmt::format(
            "file         {} there and back in {:.2f} s: {}/s each way; {} sent again after the "
            "reconnect\n",
            formatBytes(bytes), time, formatBytes(bytes / time),
            formatBytes(result["resent"].get<double>())));
        print(fmt::format("checksum     {:016x}, {}\n",
                          result["sent_checksum"].get<std::uint64_t>(),
                          whole ? "the same on return" : "DIFFERENT on return"));
        print(
            fmt::format("small messages (64 B), one way in µs\n"
                        "  {:<14} {:>7} {:>9} {:>9} {:>9} {:>9} {:>6}\n",
                        "", "count", "p50", "p90", "p99", "max", "lost"));
        print(latencyLine("session idle", result["idle"]));
        print(latencyLine("with the file", result["busy"]));
        print("announced   " + announcedText(result["announced"]) + '\n');
        flushOut();
        return whole ? kOk : kFailed;
    }

    const DemoOptions m_options;
    const Workplace m_place;
    std::unique_ptr<support::Subprocess> m_listener;
    std::unique_ptr<support::Subprocess> m_connector;
};

}  // namespace

void addDemoCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<DemoOptions>();
    Command command(
        app, "demo",
        "Runs a whole session on this machine: two hosts, four streams, a file, a reconnect");
    command.argument("file", options->file, "The file to send instead of a generated one")
        .regularFile();
    addKindOption(command, options->kind);
    command.argument("--seconds", options->seconds, "Approximate duration")
        .range(1.0, 600.0)
        .showDefault();
    addLibraryOption(command, options->pluginPath);
    command.run([=, &exitCode] { exitCode = Demo(*options).run(); });

    auto end = std::make_shared<DemoEndOptions>();
    Command child(app, "demo-end", "A local process of the demo");
    child.hide();
    child.argument("role", end->role).required();
    child.argument("file", end->file);
    child.argument("seconds", end->seconds);
    child.run([=, &exitCode] { exitCode = end->role == "far" ? runFarEnd() : runNearEnd(*end); });
}

}  // namespace vcctl
