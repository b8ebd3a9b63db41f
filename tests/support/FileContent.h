#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace testsupport {

// All bytes of a file; empty when it cannot be read.
inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace testsupport
