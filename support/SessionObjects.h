// Removes what the processes of a session namespace left in shared memory. Does nothing where the
// system does not list its shared-memory objects (macOS).
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
}

}  // namespace support
