#include "PluginLibrary.h"

#include <filesystem>
#include <vector>

#include "CommandError.h"
#include "OwnPath.h"
#include "VcctlVersion.h"

namespace vcctl {

std::string ownPluginPath() {
    const std::filesystem::path program = support::ownPath();
    const std::vector<std::filesystem::path> places{
        program.parent_path() / VCCTL_LIBRARY_FROM_BUILD,
        program.parent_path() / VCCTL_LIBRARY_FROM_INSTALL};
    for (const auto& place : places) {
        std::error_code ignored;
        const auto path = (place / hosts::Plugin::kDefaultName).lexically_normal();
        if (std::filesystem::exists(path, ignored)) return path.string();
    }
    return hosts::Plugin::kDefaultName;
}

hosts::Plugin loadPlugin(const std::string& path) {
    try {
        return hosts::Plugin(path.empty() ? ownPluginPath() : path);
    } catch (const std::runtime_error& error) {
        throw CommandError(error.what() +
                           std::string(path.empty() ? ". --library PATH says where it is" : ""));
    }
}

}  // namespace vcctl
