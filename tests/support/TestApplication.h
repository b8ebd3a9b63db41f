// An application bundle for one test, with a small real program (IdleProgram.cpp).
#pragma once

#include "ApplicationBundle.h"
#include "TestSupport.h"

namespace testsupport {

// The path of a program that runs until terminated, whatever its arguments; with "stubborn" among
// them, it ignores SIGTERM.
inline std::string idleProgram() { return NORVO_IDLE_PROGRAM; }

inline Texts argumentsOf(pid_t pid) {
    Texts arguments;
    std::istringstream text(contentOf("/proc/" + std::to_string(pid) + "/cmdline"));
    for (std::string one; std::getline(text, one, '\0');) arguments.push_back(one);
    if (!arguments.empty()) arguments.erase(arguments.begin());
    return arguments;
}

// The text after `field` in the process's /proc status ("SigBlk:\t...").
inline std::string statusOf(pid_t pid, const std::string& field) {
    for (const auto& line : linesOf("/proc/" + std::to_string(pid) + "/status"))
        if (line.starts_with(field + ":\t")) return line.substr(field.size() + 2);
    return {};
}

// Makes <folder>/<name>.app, and makes this process use the folder as that of installed
// applications. At the end kills the bundle's processes and removes it.
class TestApplication {
public:
    TestApplication(const std::string& name, const std::string& identifier)
        : m_canonicalFolder(fs::canonical(m_folder.path())),
          m_path(m_canonicalFolder + '/' + name + ".app"),
          m_program(m_path + "/Contents/MacOS/" + name) {
        fs::create_directories(m_path + "/Contents/MacOS");
        fs::copy_file(idleProgram(), m_program);
        std::ofstream(m_path + "/Contents/Info.plist")
            << "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key><string>" << name
            << "</string><key>CFBundleIdentifier</key><string>" << identifier
            << "</string></dict></plist>\n";
        VDIFrameworkCommon::redirectApplications(m_canonicalFolder);
    }
    ~TestApplication() {
        for (const pid_t pid : processes()) kill(pid, SIGKILL);
        waitForProcesses(0);
        VDIFrameworkCommon::redirectApplications("");
    }
    TestApplication(const TestApplication&) = delete;
    TestApplication& operator=(const TestApplication&) = delete;

    const std::string& folder() const { return m_canonicalFolder; }
    const std::string& path() const { return m_path; }
    // The program's path inside the bundle.
    const std::string& program() const { return m_program; }

    // The running processes of the program.
    std::vector<pid_t> processes() const {
        std::vector<pid_t> found;
        for (const auto& process : fs::directory_iterator("/proc")) {
            std::error_code error;
            const fs::path executable = fs::read_symlink(process.path() / "exe", error);
            if (!error && executable == m_program)
                found.push_back(std::stoi(process.path().filename()));
        }
        return found;
    }
    // Waits, at most 20 s, until there are exactly `count`. Returns those found last.
    std::vector<pid_t> waitForProcesses(std::size_t count) const {
        auto found = processes();
        eventually([&] { return (found = processes()).size() == count; });
        return found;
    }

private:
    TempDir m_folder;
    std::string m_canonicalFolder;
    std::string m_path;
    std::string m_program;
};

}  // namespace testsupport
