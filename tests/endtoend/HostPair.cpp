#include "HostPair.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <utility>

namespace testsupport {

namespace {

constexpr Side kSides[] = {Side::Near, Side::Far};

const char* nameOf(Side side) { return side == Side::Near ? "near" : "far"; }

}  // namespace

HostPair::HostPair(std::string kind)
    : m_kind(std::move(kind)),
      m_near("nvt" + std::to_string(getpid())),
      m_far(m_near.name() + "far") {
    for (const Side side : kSides) launch(side);
    awaitJoined();
}

HostPair::~HostPair() {
    for (const Side side : kSides) {
        if (host(side)) stop(side);
        if (::testing::Test::HasFailure())
            std::fprintf(stderr, "log of the %s end:\n%s\n", nameOf(side), log(side).c_str());
    }
}

void HostPair::stop(Side side) {
    signal(side, SIGTERM);
    EXPECT_EQ(host(side)->wait(std::chrono::seconds(20)), 0) << "the " << nameOf(side) << " host";
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

ChildProcess HostPair::run(Side side, const std::string& role,
                           const std::vector<std::string>& args) {
    return ChildProcess(role, args, environment(side));
}

void HostPair::launch(Side side) {
    std::string command = "host --kind " + m_kind;
    command += (side == Side::Near ? " --listen " : " --connect ") + m_address;
    host(side).emplace(end(side).start(command));
    if (side == Side::Far) return;
    const std::string line = lineStarting(*host(side), "listening on ");
    m_address = line.substr(line.rfind(' ') + 1);
}

// Each host says so once per connection.
void HostPair::awaitJoined() {
    for (const Side side : kSides) lineStarting(*host(side), "joined to ");
}

}  // namespace testsupport
