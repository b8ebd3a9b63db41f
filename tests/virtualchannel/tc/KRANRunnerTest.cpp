#include "KRANRunner.h"

#include "ApplicationBundle.h"
#include "FileUtils.h"
#include "ProcessUtils.h"
#include "TestApplication.h"
#include "TestSupport.h"
#include "VDIClientInfo.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;
using VDIFrameworkCommon::FileUtils;
using VDIFrameworkCommon::VDIClientInfo;
namespace VDIClientType = VDIFrameworkCommon::VDIClientType;

namespace {

class KRANRunnerAcrossProcesses : public testing::Test {
protected:
    KRANRunnerAcrossProcesses() {
        VDIClientInfo::getInstance().setClientType(VDIClientType::Crews);
        VDIClientInfo::getInstance().setPeerClientVersion("9.8.7");
    }
    ~KRANRunnerAcrossProcesses() override {
        stopKRAN();
        unlink(m_marker.c_str());
        VDIClientInfo::getInstance().setClientType(VDIClientType::Unknown);
        VDIClientInfo::getInstance().setPeerClientVersion("");
    }
    void makeMarker() {
        if (mkdir(kMarkerDirectory, 0777) == 0) chmod(kMarkerDirectory, 01777);
        std::ofstream(m_marker) << "";
        EXPECT_TRUE(FileUtils::fileExists(m_marker));
    }
    static void killAndAwaitAnother(const TestApplication& app, pid_t process) {
        kill(process, SIGKILL);
        ASSERT_TRUE(eventually([&] {
            const auto now = app.processes();
            return now.size() == 1 && now[0] != process;
        }));
    }

    // Prevents a stopped application from being relaunched.
    const std::string m_marker = FileUtils::markerPath(kMarkerDirectory, kStopMarker);
    const TestApplication m_app{"TelvaVDIPlugin", kLauncherIdentifier};
};

using Arguments = std::vector<std::string>;

}  // namespace

TEST_F(KRANRunnerAcrossProcesses, TheApplicationIsKeptRunningUntilTheStop) {
    for (const std::string client : {"9.8.7", "without a version", "meetings"}) {
        SCOPED_TRACE(client);
        const bool meetings = client == "meetings";
        const std::string version = client == "9.8.7" ? client : "";
        const TestApplication app(meetings ? "MeetingsVDI" : "TelvaVDIPlugin",
                                  meetings ? kMeetingsIdentifier : kLauncherIdentifier);
        VDIClientInfo::getInstance().setClientType(meetings ? VDIClientType::Meetings
                                                            : VDIClientType::Crews);
        VDIClientInfo::getInstance().setPeerClientVersion(version);
        startKRAN();
        const auto first = app.waitForProcesses(1);
        ASSERT_EQ(first.size(), 1U);
        const Arguments expected =
            version.empty() ? Arguments{} : Arguments{"launchermode", version};
        EXPECT_TRUE(eventually([&] { return testsupport::argumentsOf(first[0]) == expected; }));
        killAndAwaitAnother(app, first[0]);
        stopKRAN();
        EXPECT_TRUE(app.processes().empty());
    }
}

TEST_F(KRANRunnerAcrossProcesses, AMarkerKeepsItStoppedAndItsRemovalLaunchesIt) {
    makeMarker();
    LogCapture log;
    startKRAN();
    const std::string line =
        "thinclient stopped running, but " + m_marker + " file exists, so we won't restart it";
    ASSERT_TRUE(eventually([&] { return log.count(line) >= 2; }));
    EXPECT_TRUE(m_app.processes().empty());
    EXPECT_FALSE(log.contains("run thin client."));

    const auto removed = std::chrono::steady_clock::now();
    unlink(m_marker.c_str());
    ASSERT_EQ(m_app.waitForProcesses(1).size(), 1U);
    EXPECT_LT(std::chrono::steady_clock::now() - removed, std::chrono::seconds(10));
}

TEST_F(KRANRunnerAcrossProcesses, AnApplicationThatIsInstalledDuringTheSessionIsLaunched) {
    std::filesystem::rename(m_app.path(), m_app.path() + ".part");
    LogCapture log;
    startKRAN();
    ASSERT_TRUE(eventually([&] { return log.contains("is not installed: "); }));
    std::filesystem::rename(m_app.path() + ".part", m_app.path());
    EXPECT_EQ(m_app.waitForProcesses(1).size(), 1U);
}

TEST_F(KRANRunnerAcrossProcesses, AnotherUsersMarkerStopsNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make a file of another user";
    makeMarker();
    ASSERT_EQ(chown(m_marker.c_str(), 12345, 12345), 0);
    LogCapture log;
    startKRAN();
    EXPECT_EQ(m_app.waitForProcesses(1).size(), 1U);
    EXPECT_TRUE(log.contains(m_marker + " is ignored: it is a file of user 12345, mode "));
}

TEST_F(KRANRunnerAcrossProcesses, AnotherClientTypeRunsNothingAndAStopDoesNotWaitForTheRoundToEnd) {
    VDIClientInfo::getInstance().setClientType(VDIClientType::Unknown);
    LogCapture log;
    startKRAN();
    ASSERT_TRUE(eventually([&] { return log.contains("run thin client."); }));
    constexpr int kRounds = 20;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kRounds; ++i) {
        startKRAN();
        stopKRAN();
        stopKRAN();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(kRounds));
    EXPECT_TRUE(m_app.processes().empty());
    EXPECT_EQ(log.count("runKRANThread already running, just return."), 1);
    EXPECT_EQ(log.count("No runKRANThread is running"), kRounds);
}

// A plug-in process: connects when told to, and exits with or without disconnecting.
CHILD_ROLE(runningPlugin) {
    VDIFrameworkCommon::redirectApplications(args[0]);
    VDIClientInfo::getInstance().setClientType(VDIClientType::Crews);
    testsupport::say("ready");
    testsupport::hear();
    startKRAN();
    const bool found = eventually(
        [] { return VDIFrameworkCommon::ProcessUtils::isProcessRunning(kLauncherIdentifier); });
    testsupport::say(found ? "running" : "missing");
    testsupport::hear();
    if (args[1] == "disconnect") stopKRAN();
    return 0;
}

TEST_F(KRANRunnerAcrossProcesses, PluginsThatConnectAtOnceStartItOnce) {
    std::vector<ReadyChild> plugins;
    for (int i = 0; i < 3; ++i)
        plugins.emplace_back("runningPlugin", Arguments{m_app.folder(), "disconnect"});
    for (auto& plugin : plugins) plugin.writeLine("");
    for (auto& plugin : plugins) EXPECT_EQ(plugin.readLine(), "running");
    const auto processes = m_app.processes();
    ASSERT_EQ(processes.size(), 1U);

    killAndAwaitAnother(m_app, processes[0]);
    // Long enough for one round of each.
    std::this_thread::sleep_for(std::chrono::milliseconds(2200));
    EXPECT_EQ(m_app.processes().size(), 1U);

    for (auto& plugin : plugins) plugin.writeLine("");
    for (auto& plugin : plugins) EXPECT_EQ(plugin.wait(), 0);
    EXPECT_TRUE(m_app.processes().empty());
}

TEST_F(KRANRunnerAcrossProcesses, AnApplicationOutlivesAHostThatDoesNotDisconnectAndIsTakenOver) {
    ReadyChild plugin("runningPlugin", {m_app.folder(), "leave"});
    plugin.writeLine("");
    EXPECT_EQ(plugin.readLine(), "running");
    plugin.writeLine("");
    EXPECT_EQ(plugin.wait(), 0);
    EXPECT_EQ(m_app.processes().size(), 1U) << "it ends on disconnection only";

    LogCapture log;
    startKRAN();
    ASSERT_TRUE(eventually([&] { return log.contains("KRAN runner thread start."); }));
    stopKRAN();
    EXPECT_FALSE(log.contains("run thin client."));
    EXPECT_TRUE(m_app.processes().empty());
}
