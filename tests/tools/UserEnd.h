// One end of a session for tests that run the tool: a namespace, a home and files of its own.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "SessionObjects.h"
#include "Subprocess.h"
#include "TempDir.h"

namespace testsupport {

struct Outcome {
    int status;
    std::string text;  // of standard output and standard error
};

inline void expectPart(const std::string& text, const std::string& part) {
    EXPECT_NE(text.find(part), std::string::npos) << "no '" << part << "' in\n" << text;
}

// One end: a session namespace with a home directory of its own.
class UserEnd {
public:
    UserEnd() { std::filesystem::create_directories(file("home")); }
    ~UserEnd() { support::removeSessionObjects(m_namespace); }
    UserEnd(const UserEnd&) = delete;
    UserEnd& operator=(const UserEnd&) = delete;

    const std::string& name() const { return m_namespace; }
    std::string file(const std::string& name) const { return m_directory / name; }

    // `arguments` as in a shell, standard error joined to standard output.
    support::Subprocess start(const std::string& arguments) const {
        return startShell("exec " VCCTL_PROGRAM " " + arguments + " 2>&1");
    }
    support::Subprocess startShell(const std::string& command,
                                   std::vector<std::string> environment = {}) const {
        for (const std::string& entry : {"NORVO_VDI_NAMESPACE=" + m_namespace,
                                         "HOME=" + file("home"), "TMPDIR=" + m_directory.path()})
            environment.push_back(entry);
        return support::Subprocess({"/bin/sh", "-c", command}, environment);
    }
    Outcome run(const std::string& arguments) const {
        support::Subprocess process = start(arguments);
        std::string text = process.readAll();
        return {process.wait(std::chrono::seconds(20)), std::move(text)};
    }
    void succeeds(const std::string& arguments, const std::string& part = {}) const {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.status, 0) << arguments << '\n' << outcome.text;
        expectPart(outcome.text, part);
    }

private:
    static inline int s_count = 0;
    const std::string m_namespace =
        "nvt" + std::to_string(getpid()) + "v" + std::to_string(++s_count);
    const TempDir m_directory;
};

// Waits for the line that starts so; what came instead when it does not come.
inline std::string lineStarting(support::Subprocess& process, const std::string& start) {
    std::string seen;
    for (std::string line; !(line = process.readLine(std::chrono::seconds(20))).empty();
         seen += line + '\n') {
        if (line.rfind(start, 0) == 0) return line;
    }
    ADD_FAILURE() << "no line '" << start << "' in\n" << seen;
    return seen;
}

}  // namespace testsupport
