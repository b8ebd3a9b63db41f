// Removes what the processes of a session namespace left: the marks of agents that were killed, and
// shared memory where the system lists its objects (not on macOS).
#pragma once

#include <sys/mman.h>

#include <filesystem>
#include <string>
#include <vector>

namespace support {

inline void removeSessionObjects(const std::string& sessionNamespace) {
    std::error_code ignored;
    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored)) {
        const std::string name = entry.path().filename();
        if (name.find(sessionNamespace + '.') != std::string::npos) left.push_back('/' + name);
    }
    for (const std::string& name : left) shm_unlink(name.c_str());
    left.clear();
    for (const auto& entry : std::filesystem::directory_iterator("/tmp/norvo", ignored)) {
        if (entry.path().filename().string().starts_with(sessionNamespace + '.'))
            left.push_back(entry.path());
    }
    for (const std::string& path : left) std::filesystem::remove(path, ignored);
}

}  // namespace support
