// norvo_bench on the command line; the figures themselves are not checked.
#include "TestSupport.h"

namespace {

using namespace testsupport;

support::Subprocess bench(Texts arguments) {
    arguments.insert(arguments.begin(), NORVO_BENCH);
    return support::Subprocess(arguments);
}

int sharedObjectsOf(pid_t process) {
    int count = 0;
    for (const char separator : {'.', '-'}) {
        const std::string session = "nvb" + std::to_string(process) + separator;
        for (const auto& entry : fs::directory_iterator("/dev/shm"))
            count += entry.path().filename().string().find(session) != std::string::npos;
    }
    return count;
}

// The number of processes started by `process` or its children, found by their session namespace.
// An ended process has no environment.
int livingPeersOf(pid_t process) {
    int count = 0;
    std::error_code gone;
    const std::string session = "NORVO_VDI_NAMESPACE=nvb" + std::to_string(process);
    for (const auto& entry : fs::directory_iterator("/proc", gone)) {
        if (entry.path().filename() == std::to_string(process)) continue;
        count += contentOf(entry.path() / "environ").find(session) != std::string::npos;
    }
    return count;
}

TEST(NorvoBenchAcrossProcesses, ListsWhatItMeasuresAndRefusesWrongUseWithStatusTwo) {
    auto list = bench({"--list"});
    const std::string listed = list.readAll();
    EXPECT_NE(listed.find("event: "), std::string::npos) << listed;
    EXPECT_NE(listed.find("hop/64 B/Boost mailbox"), std::string::npos) << listed;
    EXPECT_EQ(list.wait(), 0);
    for (const char* wrong : {"--repeat=0", "--filter=[", "--filter=nothing-is-called-so",
                              "--csv=/nonexistent/x.csv", "--no-such-option"})
        EXPECT_EQ(bench({wrong}).wait(), 2) << wrong;
}

// Counts the commas outside quotes in a row.
std::size_t columnsOf(const std::string& row) {
    bool quoted = false;
    return static_cast<std::size_t>(std::count_if(row.begin(), row.end(), [&](char c) {
        quoted ^= c == '"';
        return c == ',' && !quoted;
    }));
}

TEST(NorvoBenchAcrossProcesses, WritesFiguresAndVerdicts) {
    const TempDir folder;
    auto program =
        bench({"--quick", "--repeat=2", "--filter=^event/", "--csv=" + (folder / "figures.csv")});
    EXPECT_NE(program.readAll().find("verdict"), std::string::npos);
    EXPECT_EQ(program.wait(), 0);
    int measured = 0;
    int goals = 0;
    const auto rows = linesOf(folder / "figures.csv");
    for (const auto& row : rows) {
        EXPECT_EQ(columnsOf(row), columnsOf(rows.front())) << row;
        measured += row.starts_with("measured,event,,mutex + condition,time,ns,");
        goals += row.starts_with("goal,event,");
    }
    EXPECT_GT(measured, 0);
    EXPECT_GT(goals, 0);
}

TEST(NorvoBenchAcrossProcesses, ReportsItsMeasurementsWhenItIsInterrupted) {
    std::string text;
    for (auto patience = 200ms; text.empty() && patience < 20s; patience *= 2) {
        auto stopped = bench({"--filter=^event/", "--repeat=1000"});  // would take minutes
        EXPECT_EQ(stopped.wait(patience), -1);
        stopped.signal(SIGINT);
        text = stopped.readAll();
        EXPECT_EQ(stopped.wait(), 130);
    }
    EXPECT_NE(text.find("mutex + condition"), std::string::npos) << text;
}

TEST(NorvoBenchAcrossProcesses, ClearsUpWhenItIsStoppedOrKilled) {
    for (const char* suite : {"--filter=^hop/", "--filter=^path/"}) {
        SCOPED_TRACE(suite);
        auto stopped = bench({suite});
        ASSERT_TRUE(eventually([&] { return sharedObjectsOf(stopped.pid()) != 0; }));
        stopped.signal(SIGINT);
        EXPECT_EQ(stopped.wait(), 130);
        EXPECT_EQ(livingPeersOf(stopped.pid()), 0);
        EXPECT_EQ(sharedObjectsOf(stopped.pid()), 0);

        auto killed = bench({suite});
        ASSERT_TRUE(eventually([&] { return sharedObjectsOf(killed.pid()) != 0; }));
        killed.kill();
        killed.wait();
        EXPECT_TRUE(eventually([&] { return livingPeersOf(killed.pid()) == 0; }));
        EXPECT_EQ(bench({"--quick", "--repeat=1", "--filter=^event/"}).wait(), 0);
        EXPECT_EQ(sharedObjectsOf(killed.pid()), 0) << "the next run clears up after a killed one";
    }
}

}  // namespace
