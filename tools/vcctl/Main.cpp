#include <cstdio>

#include "Command.h"
#include "StopSignal.h"
#include "VcctlVersion.h"

namespace vcctl {

namespace {

int run(int argc, char** argv) {
    CLI::App app{"Runs, uses and looks into virtual-channel sessions on this machine."};
    app.name("vcctl");
    app.require_subcommand(1);
    app.set_version_flag("--version", "vcctl " VCCTL_VERSION);
    app.footer(
        "Environment: NORVO_VDI_NAMESPACE separates sessions on one machine, NORVO_VDI_LOG_LEVEL\n"
        "(0 to 6) sets the detail of the log in $HOME/Library/Logs/norvouvdi/.\n"
        "Exit codes: 0 done, 1 failed, 2 wrong usage, 130 interrupted.\n"
        "`vcctl COMMAND --help` tells more about each command; `man vcctl` has examples.");
    int exitCode = kOk;
    for (const auto add : {addHostCommand, addSendCommand, addRecvCommand, addWatchCommand,
                           addAskCommand, addStreamsCommand, addDecodeCommand, addDemoCommand}) {
        add(app, exitCode);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (argc > 1 && *argv[1] != '-' && app.get_subcommands().empty()) {
            throw CommandError("'" + std::string(argv[1]) + "' is no command: see vcctl --help",
                               kUsage);
        }
        return app.exit(error) == 0 ? kOk : kUsage;
    }
    return exitCode;
}

}  // namespace

}  // namespace vcctl

int main(int argc, char** argv) {
    vcctl::StopSignal::install();
    try {
        return vcctl::run(argc, argv);
    } catch (const vcctl::CommandError& error) {
        if (*error.what()) std::fprintf(stderr, "vcctl: %s\n", error.what());
        return error.exitCode();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vcctl: internal error: %s\n", error.what());
        return vcctl::kFailed;
    }
}
