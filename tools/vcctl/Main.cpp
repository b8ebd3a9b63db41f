#include <cstdio>

#include "CommandError.h"
#include "CommandLine.h"
#include "StandardDescriptors.h"
#include "StopSignal.h"

int main(int argc, char** argv) {
    support::occupyStandardDescriptors();
    vcctl::StopSignal::install();
    try {
        return vcctl::runCommand(argc, argv);
    } catch (const vcctl::CommandError& error) {
        if (*error.what()) std::fprintf(stderr, "vcctl: %s\n", error.what());
        return error.exitCode();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vcctl: internal error: %s\n", error.what());
        return vcctl::kFailed;
    }
}
