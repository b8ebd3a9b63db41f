#include "ProcessUtils.h"

#include <sys/inotify.h>

#include "ApplicationBundle.h"
#include "FrameworkSupport.h"
#include "ProcessLaunch.h"
#include "ProcessMatcher.h"
#include "ProcessWatch.h"
#include "TestApplication.h"

using namespace frameworktest;

namespace {

constexpr char kIdentifier[] = "com.norvo.test.Companion";

// Signals 32 and 33 belong to the thread library.
constexpr unsigned long long kOfTheThreadLibrary = 3ULL << 31;

unsigned long long signalsOf(pid_t pid, const std::string& set) {
    return std::stoull(statusOf(pid, set), nullptr, 16);
}

void makeScript(const std::string& path, const char* commands = "while :; do sleep 0.1; done") {
    fs::remove(path);
    std::ofstream(path) << "#!/bin/sh\n" << commands << '\n';
    fs::permissions(path, fs::perms::owner_all);
}

class ProcessUtilsAcrossProcesses : public testing::Test {
protected:
    // A search by name sees all of the user's processes, including those of concurrent tests.
    const std::string name = "Companion" + std::to_string(getpid());
    TestApplication app{name, kIdentifier};
};

// The files that the process has open, except the null device.
std::string filesOf(pid_t pid) {
    std::string files;
    for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code gone;
        const fs::path target = fs::read_symlink(fd, gone);
        if (!gone && target != "/dev/null") files += target.string() + '\n';
    }
    return files;
}

TEST_F(ProcessUtilsAcrossProcesses, ABundleIsStartedWithItsArgumentsAndInheritsNothing) {
    int leaked[2];
    ASSERT_EQ(pipe(leaked), 0);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    ASSERT_TRUE(ProcessUtils::createProcessAtURL(app.path() + '/', {"launchermode", "1 2"}));
    pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    close(leaked[0]);
    close(leaked[1]);

    const auto processes = app.processes();
    ASSERT_EQ(processes.size(), 1U) << "must be there when the call returns";
    const pid_t program = processes[0];
    EXPECT_TRUE(eventually([&] { return argumentsOf(program) == Texts{"launchermode", "1 2"}; }));
    EXPECT_NE(statusOf(program, "PPid"), std::to_string(getpid()));
    EXPECT_EQ(getsid(program), program);
    for (const char* set : {"SigBlk", "SigIgn"})
        EXPECT_EQ(signalsOf(program, set) & ~kOfTheThreadLibrary, 0U) << set;
    // The program itself opens and closes files while it starts.
    std::string inherited;
    EXPECT_TRUE(eventually([&] { return (inherited = filesOf(program)).empty(); })) << inherited;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left to reap";
}

TEST_F(ProcessUtilsAcrossProcesses, AProgramIsFoundByNamePathBundleAndIdentifier) {
    const Texts names{name, app.program(), app.path(), kIdentifier,
                      "/Applications/" + name + ".app"};
    for (const auto& each : names) EXPECT_FALSE(ProcessUtils::isProcessRunning(each)) << each;
    ASSERT_TRUE(ProcessUtils::createProcess(app.path()));
    for (const auto& each : names) EXPECT_TRUE(ProcessUtils::isProcessRunning(each)) << each;
    for (const std::string& each : {std::string(), std::string("/"), 'c' + name.substr(1),
                                    name + ".app", std::string("com.norvo.test")})
        EXPECT_FALSE(ProcessUtils::isProcessRunning(each)) << each;
    kill(app.processes().at(0), SIGKILL);
    EXPECT_TRUE(eventually([] { return !ProcessUtils::isProcessRunning(kIdentifier); }));
}

TEST_F(ProcessUtilsAcrossProcesses, AFailureToStartIsReportedOnce) {
    fs::create_directories(app.folder() + "/Empty.app/Contents");
    for (const char* file : {"/plain", "/broken"})
        std::ofstream(app.folder() + file) << "not a program";
    fs::permissions(app.folder() + "/broken", fs::perms::owner_all);
    LogCapture log;
    Texts expected;
    for (const std::string& path : {app.folder() + "/missing", app.folder() + "/Empty.app",
                                    app.folder() + "/plain", app.folder() + "/broken", app.folder(),
                                    std::string("com.norvo.test.Missing"), std::string()}) {
        EXPECT_FALSE(ProcessUtils::createProcess(path)) << path;
        expected.push_back("could not start " + path);
    }
    EXPECT_EQ(log.lines(), expected);
}

TEST_F(ProcessUtilsAcrossProcesses, RunningAProgramReportsWhetherItSucceeded) {
    EXPECT_TRUE(runDetached("/bin/sh", {"-c", "sleep 0.05; exit 0"}));
    EXPECT_FALSE(runDetached("/bin/sh", {"-c", "sleep 0.05; exit 1"}));
    EXPECT_FALSE(runDetached("/bin/sh", {"-c", "kill -9 $$"}));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left to reap";
}

TEST_F(ProcessUtilsAcrossProcesses, AScriptIsFoundAsTheProgramOfItsBundle) {
    makeScript(app.program());
    const std::string reader = app.folder() + "/reader";
    fs::copy_file("/usr/bin/tail", reader);
    ASSERT_TRUE(launchDetached(reader, {"-f", app.program()}));
    EXPECT_FALSE(ProcessUtils::isProcessRunning(kIdentifier)) << "only reads the script";
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(ProcessUtils::createProcess(kIdentifier));
    EXPECT_TRUE(ProcessUtils::isProcessRunning(kIdentifier));
    const auto running = [&] { return processesNamed(app.program()).size(); };
    // Between fork and exec, a command of the shell looks like the shell.
    EXPECT_TRUE(eventually([&] { return running() == 1; }));
    ProcessUtils::terminateProcess(kIdentifier);
    EXPECT_EQ(running(), 0U);
    EXPECT_TRUE(ProcessUtils::isProcessRunning(reader));
    ProcessUtils::terminateProcess(reader);
}

class OpenedFile {
public:
    explicit OpenedFile(const std::string& path) {
        EXPECT_NE(inotify_add_watch(m_events.get(), path.c_str(), IN_OPEN), -1);
    }
    // Whether it has been opened since the last call.
    bool wasOpened() const {
        char events[4096];
        return read(m_events.get(), events, sizeof events) > 0;
    }

private:
    support::Descriptor m_events{inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
};

TEST_F(ProcessUtilsAcrossProcesses, FilesThatOtherProgramsNameAreLeftAlone) {
    const std::string contents = app.folder() + "/Other.app/Contents";
    const std::string fifo = contents + "/MacOS/" + name;
    const std::string script = contents + "/MacOS/data";
    const std::string reader = app.folder() + "/reader";
    fs::create_directories(contents + "/MacOS");
    fs::copy_file(idleProgram(), reader);
    makeScript(script);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_EQ(mkfifo((contents + "/Info.plist").c_str(), 0600), 0);
    for (const auto& file : {fifo, script}) ASSERT_TRUE(launchDetached(reader, {file}));
    const OpenedFile openedFifo(fifo);
    const OpenedFile openedList(contents + "/Info.plist");
    const OpenedFile openedScript(script);
    // A concurrent test may also search, and open the script.
    const auto opensNothing = [&](const std::string& program) {
        return eventually([&] {
            openedScript.wasOpened();
            return !ProcessUtils::isProcessRunning(program) && !openedScript.wasOpened();
        });
    };
    for (const std::string& each : {name, app.program(), app.path()})
        EXPECT_TRUE(opensNothing(each)) << each;
    // A search by identifier reads the script, and only regular files.
    EXPECT_FALSE(ProcessUtils::isProcessRunning(kIdentifier));
    EXPECT_TRUE(openedScript.wasOpened());
    EXPECT_EQ(readBundle(app.folder() + "/Other.app").executable, "");
    EXPECT_FALSE(openedFifo.wasOpened() || openedList.wasOpened());
    ProcessUtils::terminateProcess(reader);
}

TEST_F(ProcessUtilsAcrossProcesses, AWatchSearchesAgainWhenItsProcessHasEndedOrChanged) {
    makeScript(app.program(), "read line; exec sleep 60");
    const std::string description = app.path() + "/Contents/Info.plist";
    ProcessWatch watch;
    EXPECT_FALSE(watch.isRunning(kIdentifier));
    for (const bool killed : {true, false}) {
        support::Subprocess child({app.program()});
        ASSERT_TRUE(eventually([&] { return watch.isRunning(kIdentifier); }));
        fs::rename(description, app.folder() + "/away");
        EXPECT_TRUE(watch.isRunning(kIdentifier)) << "has searched although its process runs";
        fs::rename(app.folder() + "/away", description);
        if (killed) child.kill();
        child.closeInput();
        EXPECT_TRUE(eventually([&] { return !watch.isRunning(kIdentifier); })) << killed;
    }
}

TEST_F(ProcessUtilsAcrossProcesses, AProgramThatIgnoresTerminationIsKilledAfterASecond) {
    ASSERT_TRUE(launchDetached(app.program(), {}));
    ASSERT_TRUE(launchDetached(app.program(), {"stubborn"}));
    const auto ignoresTerm = [](pid_t pid) {
        return (signalsOf(pid, "SigIgn") & 1ULL << (SIGTERM - 1)) != 0;
    };
    ASSERT_TRUE(eventually([&] {
        const auto processes = app.processes();
        return processes.size() == 2 &&
               std::count_if(processes.begin(), processes.end(), ignoresTerm) == 1;
    }));
    const auto start = Clock::now();
    ProcessUtils::terminateProcess(kIdentifier);
    EXPECT_TRUE(app.processes().empty());
    EXPECT_GT(Clock::now() - start, std::chrono::milliseconds(900)) << "was not given its second";
}

TEST_F(ProcessUtilsAcrossProcesses, AProgramWhoseFileWasReplacedIsFoundAndAZombieIsNot) {
    support::Subprocess child({app.program()});
    fs::rename(app.program(), app.program() + ".old");
    fs::remove(app.program() + ".old");
    EXPECT_TRUE(ProcessUtils::isProcessRunning(kIdentifier));
    ProcessUtils::terminateProcess(kIdentifier);
    EXPECT_FALSE(ProcessUtils::isProcessRunning(kIdentifier));
    EXPECT_EQ(kill(child.pid(), 0), 0) << "must still be there to be a zombie";
    EXPECT_EQ(child.wait(), 128 + SIGTERM);
}

CHILD_ROLE(terminatorOfItsOwnName) {
    say("ready");
    hear();
    ProcessUtils::terminateProcess(fs::read_symlink("/proc/self/exe"));
    say("still here");
    return 0;
}

TEST_F(ProcessUtilsAcrossProcesses, TheCallerIsNeverTerminated) {
    const std::string copy = app.folder() + "/copy";
    fs::copy_file(fs::read_symlink("/proc/self/exe"), copy);
    const Texts command{copy, "--child-role", "terminatorOfItsOwnName"};
    support::Subprocess other(command);
    support::Subprocess caller(command);
    for (auto* each : {&other, &caller}) ASSERT_EQ(each->readLine(), "ready");
    EXPECT_TRUE(ProcessUtils::isProcessRunning(copy));
    caller.closeInput();
    EXPECT_EQ(caller.readLine(), "still here");
    EXPECT_EQ(other.wait(), 128 + SIGTERM);
}

}  // namespace
