#include "HostPair.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <sstream>
#include <utility>

#include "FileContent.h"
#include "SessionObjects.h"

namespace testsupport {

namespace {

constexpr auto kPatience = std::chrono::seconds(20);
constexpr Side kSides[] = {Side::Near, Side::Far};

const char* nameOf(Side side) { return side == Side::Near ? "near" : "far"; }

std::string namespaceOf(Side side) {
    return "nvt" + std::to_string(getpid()) + (side == Side::Near ? "" : "far");
}

// The last word of the next line that starts so; empty when none comes.
std::string awaitLine(support::Subprocess& host, const std::string& start) {
    std::string seen;
    for (std::string line; !(line = host.readLine(kPatience)).empty(); seen += line + '\n') {
        if (line.rfind(start, 0) == 0) return line.substr(line.rfind(' ') + 1);
    }
    ADD_FAILURE() << "a host never said '" << start << "' after\n" << seen;
    return {};
}

}  // namespace

HostPair::HostPair(std::string kind, std::vector<std::string> options)
    : m_kind(std::move(kind)), m_options(std::move(options)) {
    for (const Side side : kSides) {
        std::filesystem::create_directory(file(side, ""));
        launch(side);
    }
    awaitJoined();
}

HostPair::~HostPair() {
    for (const Side side : kSides) {
        if (host(side)) stop(side);
        if (::testing::Test::HasFailure())
            std::fprintf(stderr, "log of the %s end:\n%s\n", nameOf(side), log(side).c_str());
        support::removeSessionObjects(namespaceOf(side));
    }
}

void HostPair::stop(Side side) {
    signal(side, SIGTERM);
    EXPECT_EQ(host(side)->wait(kPatience), 0) << "the " << nameOf(side) << " host";
    host(side).reset();
}

void HostPair::kill(Side side) {
    host(side)->kill();
    host(side).reset();
}

void HostPair::start(Side side) {
    launch(side);
    awaitJoined();
}

void HostPair::reconnect() {
    signal(Side::Near, SIGHUP);
    awaitJoined();
}

std::size_t HostPair::residentBytes(Side side) {
    std::istringstream pages(contentOf("/proc/" + std::to_string(pid(side)) + "/statm"));
    std::size_t total = 0;
    std::size_t resident = 0;
    pages >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

std::string HostPair::log(Side side) const {
    return contentOf(file(side, "Library/Logs/norvouvdi/VirtualChannel.log"));
}

std::string HostPair::file(Side side, const std::string& name) const {
    return m_directory / nameOf(side) + '/' + name;
}

ChildProcess HostPair::run(Side side, const std::string& role,
                           const std::vector<std::string>& args) {
    return ChildProcess(role, args, environment(side));
}

support::Subprocess HostPair::vcctl(Side side, const std::string& arguments) {
    return support::Subprocess({"/bin/sh", "-c", "exec " VCCTL_PROGRAM " " + arguments + " 2>&1"},
                               environment(side));
}

std::vector<std::string> HostPair::environment(Side side) const {
    return {"NORVO_VDI_NAMESPACE=" + namespaceOf(side), "HOME=" + file(side, ""),
            "TMPDIR=" + file(side, "")};
}

void HostPair::launch(Side side) {
    std::string command = "host --kind " + m_kind;
    command += (side == Side::Near ? " --listen " : " --connect ") + m_address;
    for (const std::string& option : m_options) command += ' ' + option;
    host(side).emplace(vcctl(side, command));
    if (side == Side::Near) m_address = awaitLine(*host(side), "listening on ");
}

// Each says so once for every connection.
void HostPair::awaitJoined() {
    for (const Side side : kSides) awaitLine(*host(side), "joined to ");
}

}  // namespace testsupport
