#include "StartProcess.h"

#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <utility>

extern char** environ;

namespace support {

namespace {

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (auto& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Each name once: programs disagree on which of two duplicates counts.
std::vector<std::string> ownEnvironmentWith(const std::vector<std::string>& changes) {
    std::map<std::string, std::string> entries;
    const auto add = [&](const std::string& entry) {
        entries[entry.substr(0, entry.find('='))] = entry;
    };
    for (char** entry = environ; *entry; ++entry) add(*entry);
    for (const std::string& entry : changes) add(entry);
    std::vector<std::string> texts;
    texts.reserve(entries.size());
    for (auto& [name, entry] : entries) texts.push_back(std::move(entry));
    return texts;
}

}  // namespace

int startProcess(pid_t* pid, int input, int output, std::vector<std::string> command,
                 const std::vector<std::string>& environment) {
    std::vector<std::string> variables = ownEnvironmentWith(environment);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int failed = posix_spawnp(pid, command[0].c_str(), &actions, &attributes,
                                    pointersTo(command).data(), pointersTo(variables).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return failed;
}

}  // namespace support
