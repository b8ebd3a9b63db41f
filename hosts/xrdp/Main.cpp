// norvo-xrdp-agent: the far end of the virtual channel in an xrdp desktop.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "Agent.h"
#include "DesktopSession.h"
#include "Plugin.h"
#include "SessionNamespace.h"
#include "StandardDescriptors.h"
#include "XrdpApi.h"

namespace {

struct Options {
    std::string library = hosts::Plugin::kDefaultName;
    std::string sessionNamespace;
    std::string xrdpIni = "/etc/xrdp/xrdp.ini";
    bool check = false;
    bool autostart = false;
};

constexpr char kChannel[] = NORVO_CHANNEL_NAME;
constexpr int kUsage = 2;  // exit status

class CheckList {
public:
    // Adds one line to the list, with `advice` if not `good`.
    void add(bool good, const std::string& what, const std::string& advice) {
        std::cout << (good ? "ok       " : "MISSING  ") << what << '\n';
        if (!good) std::cout << "         " << advice << '\n';
        m_good = m_good && good;
    }
    template <class Action>
    void addAttempt(const std::string& what, const Action& action) {
        try {
            action();
            add(true, what, "");
        } catch (const std::exception& error) {
            add(false, what, error.what());
        }
    }
    bool isGood() const { return m_good; }

private:
    bool m_good = true;
};

int check(const Options& options) {
    CheckList list;
    list.addAttempt("plug-in library " + options.library,
                    [&] { const hosts::Plugin plugin(options.library); });
    list.addAttempt("xrdp's library libxrdpapi.so.0", [] { const hosts::XrdpApi api; });
    std::ifstream globals(options.xrdpIni);
    if (!globals) throw std::runtime_error("cannot read " + options.xrdpIni);
    list.add(hosts::allowsChannels(globals), "channels at all in " + options.xrdpIni,
             "set allow_channels=true below [Globals], and restart xrdp");
    std::ifstream channels(options.xrdpIni);
    list.add(hosts::allowsChannel(channels, kChannel), "the channel in " + options.xrdpIni,
             "add the line " + std::string(kChannel) + "=true below [Channels], and restart xrdp");
    const int display = hosts::displayNumber(std::getenv("DISPLAY"));
    list.add(display >= 0, "DISPLAY", "run this inside the desktop, as its user");
    if (display >= 0) {
        const auto session = hosts::desktopSession(display);
        const std::string socket = "xrdp_chansrv_socket_" + std::to_string(display);
        list.add(session.state != hosts::DesktopSession::None,
                 "xrdp's channel server (" + socket + ")",
                 "display :" + std::to_string(display) +
                     " is none of xrdp's, or xrdp-chansrv "
                     "does not run there");
        if (session.state != hosts::DesktopSession::None)
            std::cout << (session.state == hosts::DesktopSession::Attached
                              ? "         a client is attached\n"
                              : "         no client is attached\n");
    }
    return list.isGood() ? 0 : 1;
}

// Readable when a signal asks the agent to stop.
int g_stop[2] = {-1, -1};

void stopOnSignals() {
    if (pipe2(g_stop, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("cannot make a pipe");
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        std::signal(number, [](int) {
            const char byte = 's';
            [[maybe_unused]] const ssize_t written = write(g_stop[1], &byte, 1);
        });
    }
    std::signal(SIGPIPE, SIG_IGN);
}

// One agent per desktop. The lock lasts as long as the process: the descriptor is never closed.
bool lockDisplay(int display) {
    const char* folder = std::getenv("XDG_RUNTIME_DIR");
    const std::string path = std::string(folder && *folder ? folder : "/tmp") +
                             "/norvo-xrdp-agent." + std::to_string(geteuid()) + "." +
                             std::to_string(display);
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
    return flock(fd, LOCK_EX | LOCK_NB) == 0;
}

int run(const Options& options) {
    const char* name = std::getenv("DISPLAY");
    const int display = hosts::displayNumber(name);
    const bool inXrdp = std::getenv("XRDP_SESSION") ||
                        hosts::desktopSession(display).state != hosts::DesktopSession::None;
    if (options.autostart && !inXrdp) return 0;
    if (display < 0)
        throw std::runtime_error(
            (name && *name ? "DISPLAY is '" + std::string(name) + "', which is no display"
                           : std::string("DISPLAY is not set")) +
            ": run it inside the desktop, as its user");
    if (!lockDisplay(display)) throw std::runtime_error("an agent runs in this desktop already");
    stopOnSignals();
    hosts::Agent(options.library, display).run(g_stop[0]);
    return 0;
}

int parseAndRun(int argc, char** argv) {
    Options options;
    CLI::App app(
        "The far end of the virtual channel in a desktop that xrdp shows.\n"
        "It waits for a client, serves the channel while one is attached, and ends with the "
        "desktop.");
    app.add_flag("--check", options.check, "Say what is missing for the channel to work, and end");
    app.add_flag("--autostart", options.autostart,
                 "End at once where the desktop is none of xrdp's");
    app.add_option("--library", options.library, "The plug-in library");
    app.add_option("--namespace", options.sessionNamespace,
                   "Session namespace (NORVO_VDI_NAMESPACE): one for each of a user's desktops on "
                   "this machine");
    app.add_option("--xrdp-ini", options.xrdpIni, "xrdp's configuration, for --check");
    app.set_version_flag("--version", NORVO_VERSION);
    try {
        app.parse(argc, argv);
        if (!options.sessionNamespace.empty()) hosts::useSessionNamespace(options.sessionNamespace);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "norvo-xrdp-agent: %s\n", error.what());
        return kUsage;
    }
    return options.check ? check(options) : run(options);
}

}  // namespace

int main(int argc, char** argv) {
    support::occupyStandardDescriptors();
    try {
        return parseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "norvo-xrdp-agent: %s\n", error.what());
    } catch (...) {
        std::fputs("norvo-xrdp-agent: failed\n", stderr);
    }
    return 1;
}
