#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace testsupport {

// A new empty directory, removed with its contents at the end of the test.
class TempDir {
public:
    TempDir() {
        std::string pattern = std::filesystem::temp_directory_path() / "nvt-XXXXXX";
        if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a directory");
        m_path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + '/' + name; }

private:
    std::string m_path;
};

}  // namespace testsupport
