// One end of a session for tests that run real programs, and helpers to read their output.
#pragma once

#include "SessionObjects.h"
#include "TestSupport.h"

namespace testsupport {

inline void expectPart(const std::string& text, const std::string& part) {
    EXPECT_NE(text.find(part), std::string::npos) << "no '" << part << "' in\n" << text;
}

// Waits for a line of the process that `fits`. If it does not come, fails the test and returns all
// other output.
template <class Fits>
std::string lineThat(support::Subprocess& process, const std::string& what, const Fits& fits) {
    std::string seen;
    for (std::string line; !(line = process.readLine(30s)).empty(); seen += line + '\n')
        if (fits(line)) return line;
    ADD_FAILURE() << "no line '" << what << "' in\n" << seen;
    return seen;
}

inline std::string lineStarting(support::Subprocess& process, const std::string& start) {
    return lineThat(process, start, [&](const auto& line) { return line.starts_with(start); });
}

inline std::string lineWith(support::Subprocess& process, const std::string& part) {
    return lineThat(process, part,
                    [&](const auto& line) { return line.find(part) != std::string::npos; });
}

// Makes a file of `size` non-repeating bytes and returns its content.
inline std::string makeFile(const std::string& path, std::size_t size) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * i >> 9);
    std::ofstream(path, std::ios::binary) << content;
    return content;
}

inline std::vector<pid_t> childrenOf(pid_t process) {
    const std::string pid = std::to_string(process);
    std::ifstream list("/proc/" + pid + "/task/" + pid + "/children");
    return {std::istream_iterator<pid_t>(list), {}};
}

struct Outcome {
    int status;
    std::string text;  // standard output and standard error
};

// A session namespace with its own home directory and files, and the programs run in it. Removes
// what is left of the session.
class UserEnd {
public:
    UserEnd() : UserEnd(newNamespace()) {}
    explicit UserEnd(std::string sessionNamespace) : m_namespace(std::move(sessionNamespace)) {
        fs::create_directories(file("home"));
    }
    ~UserEnd() { support::removeSessionObjects(m_namespace); }
    UserEnd(const UserEnd&) = delete;
    UserEnd& operator=(const UserEnd&) = delete;

    const std::string& name() const { return m_namespace; }
    std::string file(const std::string& name) const { return m_directory / name; }
    // The plug-in's log so far, without what a running host has not flushed yet.
    std::string log() const {
        return contentOf(file("home/Library/Logs/norvouvdi/VirtualChannel.log"));
    }
    // The environment that makes a process part of this end.
    Texts environment() const {
        return {"NORVO_VDI_NAMESPACE=" + m_namespace, "HOME=" + file("home"),
                "TMPDIR=" + m_directory.path()};
    }

    // Starts `vcctl ARGUMENTS` as in a shell, with standard error joined to standard output.
    support::Subprocess start(const std::string& arguments) const {
        return startShell("exec " VCCTL_PROGRAM " " + arguments + " 2>&1");
    }
    support::Subprocess startShell(const std::string& command,
                                   const Texts& environment = {}) const {
        Texts all = this->environment();
        all.insert(all.end(), environment.begin(), environment.end());
        return support::Subprocess({"/bin/sh", "-c", command}, all);
    }
    Outcome run(const std::string& arguments) const {
        support::Subprocess process = start(arguments);
        std::string text = process.readAll();
        return {process.wait(20s), std::move(text)};
    }
    void succeeds(const std::string& arguments, const std::string& part = {}) const {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.status, 0) << arguments << '\n' << outcome.text;
        expectPart(outcome.text, part);
    }

private:
    static std::string newNamespace() {
        static int count = 0;
        return "nvt" + std::to_string(getpid()) + "v" + std::to_string(++count);
    }

    const std::string m_namespace;
    const TempDir m_directory;
};

}  // namespace testsupport
