#include "UserEnd.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "FileContent.h"
#include "SessionObjects.h"

namespace testsupport {

namespace {

std::string newNamespace() {
    static int count = 0;
    return "nvt" + std::to_string(getpid()) + "v" + std::to_string(++count);
}

template <class Fits>
std::string lineThat(support::Subprocess& process, const std::string& what, const Fits& fits) {
    std::string seen;
    for (std::string line; !(line = process.readLine(std::chrono::seconds(30))).empty();
         seen += line + '\n') {
        if (fits(line)) return line;
    }
    ADD_FAILURE() << "no line '" << what << "' in\n" << seen;
    return seen;
}

}  // namespace

UserEnd::UserEnd() : UserEnd(newNamespace()) {}

UserEnd::UserEnd(std::string sessionNamespace) : m_namespace(std::move(sessionNamespace)) {
    std::filesystem::create_directories(file("home"));
}

UserEnd::~UserEnd() { support::removeSessionObjects(m_namespace); }

std::string UserEnd::log() const {
    return contentOf(file("home/Library/Logs/norvouvdi/VirtualChannel.log"));
}

std::vector<std::string> UserEnd::environment() const {
    return {"NORVO_VDI_NAMESPACE=" + m_namespace, "HOME=" + file("home"),
            "TMPDIR=" + m_directory.path()};
}

support::Subprocess UserEnd::start(const std::string& arguments) const {
    return startShell("exec " VCCTL_PROGRAM " " + arguments + " 2>&1");
}

support::Subprocess UserEnd::startShell(const std::string& command,
                                        const std::vector<std::string>& environment) const {
    std::vector<std::string> all = this->environment();
    all.insert(all.end(), environment.begin(), environment.end());
    return support::Subprocess({"/bin/sh", "-c", command}, all);
}

Outcome UserEnd::run(const std::string& arguments) const {
    support::Subprocess process = start(arguments);
    std::string text = process.readAll();
    return {process.wait(std::chrono::seconds(20)), std::move(text)};
}

void UserEnd::succeeds(const std::string& arguments, const std::string& part) const {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << arguments << '\n' << outcome.text;
    expectPart(outcome.text, part);
}

void expectPart(const std::string& text, const std::string& part) {
    EXPECT_NE(text.find(part), std::string::npos) << "no '" << part << "' in\n" << text;
}

std::string lineStarting(support::Subprocess& process, const std::string& start) {
    return lineThat(process, start, [&](const auto& line) { return line.starts_with(start); });
}

std::string lineWith(support::Subprocess& process, const std::string& part) {
    return lineThat(process, part,
                    [&](const auto& line) { return line.find(part) != std::string::npos; });
}

std::string makeFile(const std::string& path, std::size_t size) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * i >> 9);
    std::ofstream(path, std::ios::binary) << content;
    return content;
}

std::vector<pid_t> childrenOf(pid_t process) {
    const std::string pid = std::to_string(process);
    std::ifstream list("/proc/" + pid + "/task/" + pid + "/children");
    return {std::istream_iterator<pid_t>(list), {}};
}

}  // namespace testsupport
