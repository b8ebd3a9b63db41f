#include "ChildProcess.h"

#include <cstdio>
#include <cstring>
#include <deque>
#include <map>

#include "OwnPath.h"

namespace testsupport {

namespace {

constexpr char kRoleFlag[] = "--child-role";

std::map<std::string, ChildMain>& roles() {
    static std::map<std::string, ChildMain> all;
    return all;
}

std::vector<std::string> commandLine(const std::string& role, std::vector<std::string> args) {
    args.insert(args.begin(), {support::ownPath(), kRoleFlag, role});
    return args;
}

}  // namespace

ChildRole::ChildRole(const char* name, ChildMain main) { roles()[name] = main; }

bool isChildRole(int argc, char** argv) {
    return argc >= 3 && std::strcmp(argv[1], kRoleFlag) == 0;
}

int runChildRole(int argc, char** argv) {
    if (!isChildRole(argc, argv)) return -1;
    const auto role = roles().find(argv[2]);
    if (role == roles().end()) return 127;
    return role->second(std::vector<std::string>(argv + 3, argv + argc));
}

void say(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

void hear() {
    int c = 0;
    while ((c = std::getchar()) != EOF && c != '\n') {
    }
}

ChildProcess::ChildProcess(const std::string& role, const std::vector<std::string>& args,
                           const std::vector<std::string>& environment)
    : Subprocess(commandLine(role, args), environment) {}

bool runTogether(int count, const std::string& role, const std::vector<std::string>& args) {
    std::deque<ChildProcess> children;
    for (int i = 0; i < count; ++i) children.emplace_back(role, args);
    bool well = true;
    for (auto& child : children) well = child.readLine() == "ready" && well;
    for (auto& child : children) child.closeInput();
    for (auto& child : children) well = child.wait() == 0 && well;
    return well;
}

}  // namespace testsupport
