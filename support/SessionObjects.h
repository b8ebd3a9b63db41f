// Removes leftovers of a session namespace's processes: the marks of killed agents, and
// shared memory where the system lists its objects (not on macOS). Returns the number removed.
#pragma once

#include <sys/mman.h>

#include <filesystem>
#include <string>
#include <vector>

namespace support {

inline std::size_t removeSessionObjects(const std::string& sessionNamespace) {
    std::error_code ignored;
    std::vector<std::string> memory;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored)) {
        const std::string name = entry.path().filename();
        if (name.find(sessionNamespace + '.') != std::string::npos) memory.push_back('/' + name);
    }
    for (const std::string& name : memory) shm_unlink(name.c_str());
    std::vector<std::filesystem::path> marks;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp/norvo", ignored)) {
        if (entry.path().filename().string().starts_with(sessionNamespace + '.'))
            marks.push_back(entry.path());
    }
    for (const auto& mark : marks) std::filesystem::remove(mark, ignored);
    return memory.size() + marks.size();
}

}  // namespace support
