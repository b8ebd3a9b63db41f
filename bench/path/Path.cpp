#include "Path.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "PeerProcess.h"

namespace bench {

namespace {

std::vector<PathKind>& kinds() {
    static std::vector<PathKind> all;
    return all;
}

}  // namespace

const PathKind* findPathKind(const std::string& name) {
    const auto& all = kinds();
    const auto place = std::find_if(all.begin(), all.end(),
                                    [&](const PathKind& kind) { return kind.name == name; });
    return place == all.end() ? nullptr : &*place;
}

std::string reasonToLeaveOut(const std::string& name) {
    const PathKind* kind = findPathKind(name);
    if (!kind) return "what it needs was not there when norvo_bench was built";
    return kind->missing ? kind->missing() : "";
}

PathKindRegistrar::PathKindRegistrar(PathKind kind) { kinds().push_back(std::move(kind)); }

std::string uniquePathName() {
    static std::atomic<unsigned> count{0};
    const char* session = std::getenv("NORVO_VDI_NAMESPACE");
    return std::string(session ? session : "nvb") + "-path" + std::to_string(++count);
}

// The program keeps the setting to die with its starter across exec.
BENCH_ROLE(path_program) {
    std::vector<std::string> texts = args;
    std::vector<char*> argv;
    argv.reserve(texts.size() + 1);
    for (auto& text : texts) argv.push_back(text.data());
    argv.push_back(nullptr);
    execv(argv.at(0), argv.data());
    std::fprintf(stderr, "%s: %s\n", argv.at(0), std::strerror(errno));
    return 127;
}

}  // namespace bench
