#pragma once

#include <string>

namespace VDIFrameworkCommon {

class FileUtils {
public:
    static bool fileExists(const std::string& path);
    // Makes the directory and its missing parents, for the owner only. True when it is there after.
    static bool createDirectory(const std::string& path);
    static std::string FileSeparator();
};

}  // namespace VDIFrameworkCommon
