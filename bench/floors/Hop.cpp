#include "Hop.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace bench {

namespace {

std::vector<HopKind>& kinds() {
    static std::vector<HopKind> all;
    return all;
}

}  // namespace

const std::vector<HopKind>& hopKinds() { return kinds(); }

const HopKind* findHopKind(const std::string& name) {
    const auto& all = kinds();
    const auto place = std::find_if(all.begin(), all.end(),
                                    [&](const HopKind& kind) { return name == kind.name; });
    return place == all.end() ? nullptr : &*place;
}

HopKindRegistrar::HopKindRegistrar(const char* name, OpenHop open) {
    auto& all = kinds();
    const auto place = std::find_if(all.begin(), all.end(), [&](const HopKind& kind) {
        return std::string_view(kind.name) > name;
    });
    all.insert(place, {name, open});
}

void throwSystemError(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

}  // namespace bench
