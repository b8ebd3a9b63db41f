// norvo_bench as its user meets it; what it measures is not looked at.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "Eventually.h"
#include "Subprocess.h"
#include "TempDir.h"

namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

support::Subprocess bench(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{NORVO_BENCH};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return support::Subprocess(argv);
}

std::vector<std::string> linesOf(support::Subprocess& program) {
    std::vector<std::string> lines;
    while (program.wait(0ms) == -1 && lines.size() < 10000) {
        auto line = program.readLine(100ms);
        if (!line.empty()) lines.push_back(std::move(line));
    }
    for (auto line = program.readLine(1ms); !line.empty(); line = program.readLine(1ms))
        lines.push_back(line);
    return lines;
}

int sharedObjectsOf(pid_t process) {
    int count = 0;
    for (const char separator : {'.', '-'}) {
        const std::string session = "nvb" + std::to_string(process) + separator;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm"))
            count += entry.path().filename().string().find(session) != std::string::npos;
    }
    return count;
}

// Processes that were started by `process` or its children, by their session namespace. A process
// that has ended has no environment any more.
int livingPeersOf(pid_t process) {
    int count = 0;
    std::error_code gone;
    const std::string session = "NORVO_VDI_NAMESPACE=nvb" + std::to_string(process);
    for (const auto& entry : std::filesystem::directory_iterator("/proc", gone)) {
        if (entry.path().filename() == std::to_string(process)) continue;
        std::ifstream file(entry.path() / "environ");
        const std::string text((std::istreambuf_iterator<char>(file)), {});
        count += text.find(session) != std::string::npos;
    }
    return count;
}

bool waitForNoPeers(pid_t process) {
    return testsupport::eventually([=] { return livingPeersOf(process) == 0; });
}

bool waitForObjects(pid_t process) {
    return testsupport::eventually([=] { return sharedObjectsOf(process) != 0; });
}

TEST(NorvoBenchAcrossProcesses, ListsWhatItMeasures) {
    auto program = bench({"--list"});
    EXPECT_THAT(linesOf(program), AllOf(Contains(StartsWith("event: ")),
                                        Contains(HasSubstr("hop/64 B/Boost mailbox"))));
    EXPECT_EQ(program.wait(), 0);
}

TEST(NorvoBenchAcrossProcesses, RefusesWrongUseWithStatusTwo) {
    for (const char* wrong : {"--repeat=0", "--filter=[", "--filter=nothing-is-called-so",
                              "--csv=/nonexistent/x.csv", "--no-such-option"}) {
        EXPECT_EQ(bench({wrong}).wait(), 2) << wrong;
    }
}

TEST(NorvoBenchAcrossProcesses, WritesFiguresAndVerdicts) {
    const testsupport::TempDir folder;
    const std::string csv = folder.path() + "/figures.csv";
    auto program = bench({"--quick", "--repeat=2", "--filter=^event/", "--csv=" + csv});
    EXPECT_THAT(linesOf(program), Contains(HasSubstr("verdict")));
    EXPECT_EQ(program.wait(), 0);
    std::ifstream file(csv);
    std::vector<std::string> rows;
    for (std::string row; std::getline(file, row);) rows.push_back(row);
    ASSERT_FALSE(rows.empty());
    const auto columns = [](const std::string& row) {
        static const std::regex quoted("\"[^\"]*\"");
        const std::string plain = std::regex_replace(row, quoted, "");
        return std::count(plain.begin(), plain.end(), ',');
    };
    for (const auto& row : rows) EXPECT_EQ(columns(row), columns(rows.front())) << row;
    EXPECT_THAT(rows, AllOf(Contains(StartsWith("measured,event,,mutex + condition,time,ns,")),
                            Contains(StartsWith("goal,event,"))));
}

TEST(NorvoBenchAcrossProcesses, ClearsUpWhenItIsStoppedOrKilled) {
    for (const char* suite : {"--filter=^hop/", "--filter=^path/"}) {
        SCOPED_TRACE(suite);
        auto stopped = bench({suite});
        ASSERT_TRUE(waitForObjects(stopped.pid()));
        stopped.signal(SIGINT);
        EXPECT_EQ(stopped.wait(), 130);
        EXPECT_EQ(livingPeersOf(stopped.pid()), 0);
        EXPECT_EQ(sharedObjectsOf(stopped.pid()), 0);

        auto killed = bench({suite});
        ASSERT_TRUE(waitForObjects(killed.pid()));
        killed.kill();
        killed.wait();
        EXPECT_TRUE(waitForNoPeers(killed.pid()));
        EXPECT_EQ(bench({"--quick", "--repeat=1", "--filter=^event/"}).wait(), 0);
        EXPECT_EQ(sharedObjectsOf(killed.pid()), 0) << "the next run clears up after a killed one";
    }
}

}  // namespace
