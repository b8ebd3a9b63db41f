#include "TestApplication.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ApplicationBundle.h"
#include "Eventually.h"
#include "FileContent.h"

namespace testsupport {

namespace fs = std::filesystem;

TestApplication::TestApplication(const std::string& name, const std::string& identifier)
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

TestApplication::~TestApplication() {
    for (const pid_t pid : processes()) kill(pid, SIGKILL);
    waitForProcesses(0);
    VDIFrameworkCommon::redirectApplications("");
}

std::vector<pid_t> TestApplication::processes() const {
    std::vector<pid_t> found;
    for (const auto& process : fs::directory_iterator("/proc")) {
        std::error_code error;
        const fs::path executable = fs::read_symlink(process.path() / "exe", error);
        if (!error && executable == m_program)
            found.push_back(std::stoi(process.path().filename()));
    }
    return found;
}

std::vector<pid_t> TestApplication::waitForProcesses(std::size_t count) const {
    auto found = processes();
    eventually([&] { return (found = processes()).size() == count; });
    return found;
}

std::string idleProgram() { return NORVO_IDLE_PROGRAM; }

std::vector<std::string> argumentsOf(pid_t pid) {
    std::vector<std::string> arguments;
    std::istringstream text(contentOf("/proc/" + std::to_string(pid) + "/cmdline"));
    for (std::string one; std::getline(text, one, '\0');) arguments.push_back(one);
    if (!arguments.empty()) arguments.erase(arguments.begin());
    return arguments;
}

std::string statusOf(pid_t pid, const std::string& field) {
    for (const auto& line : linesOf("/proc/" + std::to_string(pid) + "/status"))
        if (line.starts_with(field + ":\t")) return line.substr(field.size() + 2);
    return {};
}

}  // namespace testsupport
