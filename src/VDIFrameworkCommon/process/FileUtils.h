#pragma once

#include <string>

namespace VDIFrameworkCommon {

class FileUtils {
public:
    static bool fileExists(const std::string& path);
    // Whether the file exists and was put there by this user or by root, so that it may be obeyed.
    static bool isOwnFile(const std::string& path);
    // Creates the directory and its missing parents, for the owner only. True when it exists
    // afterwards.
    static bool createDirectory(const std::string& path);
    static std::string FileSeparator();
    // The path of a marker file that all processes of a session look for: `name` in `directory`
    // (which ends in a separator), with the session namespace included in the name.
    static std::string markerPath(const std::string& directory, const std::string& name);
};

}  // namespace VDIFrameworkCommon
