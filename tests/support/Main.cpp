// Starts a test run, or a child role of one. Each run gets a session namespace and a home folder of
// its own, which its children inherit, and what the run leaves in either is removed at the end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "ChildProcess.h"
#include "SessionObjects.h"

namespace {

// The plug-in writes its log below the user's home.
std::string makeHome() {
    std::string path = std::filesystem::temp_directory_path() / "norvo-tests-XXXXXX";
    if (!mkdtemp(path.data())) return {};
    setenv("HOME", path.c_str(), 1);
    return path;
}

void removeHome(const std::string& path) {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    if (const int status = testsupport::runChildRole(argc, argv); status >= 0) return status;
    ::testing::InitGoogleTest(&argc, argv);
    const std::string sessionNamespace = "nvt" + std::to_string(getpid());
    setenv("NORVO_VDI_NAMESPACE", sessionNamespace.c_str(), 1);
    const std::string home = makeHome();
    const int result = RUN_ALL_TESTS();
    removeHome(home);
    support::removeSessionObjects(sessionNamespace);
    return result;
}
