// Starts a test run or a child role. Each run gets its own session namespace and home folder, which
// its children inherit; what the run leaves in either is removed at the end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "ChildProcess.h"
#include "SessionObjects.h"
#include "TempDir.h"

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    if (const int status = testsupport::runChildRole(argc, argv); status >= 0) return status;
    ::testing::InitGoogleTest(&argc, argv);
    const std::string sessionNamespace = "nvt" + std::to_string(getpid());
    setenv("NORVO_VDI_NAMESPACE", sessionNamespace.c_str(), 1);
    try {
        // The plug-in writes its log there until the very end.
        static const testsupport::TempDir home;
        setenv("HOME", home.path().c_str(), 1);
        const int result = RUN_ALL_TESTS();
        support::removeSessionObjects(sessionNamespace);
        return result;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
