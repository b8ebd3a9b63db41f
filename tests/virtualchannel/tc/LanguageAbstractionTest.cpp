#include "LanguageAbstraction.h"

#include <dlfcn.h>
#include <sys/resource.h>

#include <regex>
#include <system_error>

#include "KLTLogger.h"
#include "TestSupport.h"

using namespace testsupport;

// ---- The library, whose threads keep running after the host has closed it

CHILD_ROLE(closesTheLibrary) {
    void* const library = dlopen(PLUGIN_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    for (const char* other :
         {NORVO_SYMBOL_WATCHDOG_THREAD_CREATE, NORVO_SYMBOL_WATCHDOG_THREAD_DESTROY})
        if (!dlsym(library, other)) return 1;
#define FUNCTION(name) reinterpret_cast<decltype(&(name))>(dlsym(library, #name))
    const auto channelActive = FUNCTION(ChannelActive);
    const auto channelName = FUNCTION(getChannelName);
    FUNCTION(InitialiseChannel)([](auto...) { return 0; }, NORVO_CHANNEL_RDP, nullptr);
    channelActive(1);
    if (dlclose(library) != 0) return 2;
    channelActive(0);
    return channelName() == std::string("NRVOCW") ? 0 : 3;
}

// The leak check crashes on threads of a closed library.
TEST(PluginLibraryAcrossProcesses, StaysWhenTheHostClosesIt) {
    EXPECT_EQ(ChildProcess("closesTheLibrary", {}, {"ASAN_OPTIONS=detect_leaks=0"}).wait(), 0);
}

// ---- The log

CHILD_ROLE(logsFromTheHost) {
    LogMessage_VDI(0, "dropped");
    VirtualChannelLogger_flush();
    testsupport::say("set up");
    testsupport::onThreads(4, [](int) { LogMessage_VDI(1, "from a thread"); });
    Shutdown();
    return 0;
}

TEST(LogFileAcrossProcesses, TheFirstCallMakesTheFileWhateverItsLevel) {
    EXPECT_EQ(ChildProcess("logsFromTheHost", {}, {"HOME="}).wait(),
              0);  // without a home there is no file
    const testsupport::TempDir home;
    ChildProcess child("logsFromTheHost", {}, {"HOME=" + home.path(), "NORVO_VDI_LOG_LEVEL=x"});
    EXPECT_EQ(child.readLine(), "set up");
    EXPECT_EQ(child.wait(), 0);
    const std::string log =
        testsupport::contentOf(home / "Library/Logs/norvouvdi/VirtualChannel.log");
    const std::regex line("src/virtualchannel/src/tc/SharedLib/LanguageAbstraction.*from a thread");
    EXPECT_EQ(
        std::distance(std::sregex_iterator(log.begin(), log.end(), line), std::sregex_iterator()),
        4);
    EXPECT_EQ(log.find("dropped"), std::string::npos);
    EXPECT_NE(log.find("NORVO_VDI_LOG_LEVEL is 'x'"), std::string::npos);
}

TEST(LanguageAbstractionTest, MapsTheHostsLevelsToSeverities) {
    struct Severities : KLT::kltlogger::LogSink {
        void write(const KLT::kltlogger::LogRecord& record) override {
            EXPECT_EQ(record.operation, "LogMessage_VDI");
            seen.push_back(record.severity);
        }
        std::vector<int> seen;
    };
    LogMessage_VDI(0, "sets the log up");
    const LogCapture everythingOn;
    const auto sink = std::make_shared<Severities>();
    const auto before = KLT::kltlogger::setSink(sink);
    for (const int level : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 1000}) LogMessage_VDI(level, "line");
    KLT::kltlogger::setSink(before);
    EXPECT_EQ(sink->seen, (std::vector<int>{5, 6, 4, 3, 2, 1}));
}

// ---- Mutexes and threads for the host

TEST(LanguageAbstractionTest, AMutexMadeByManyThreadsAtOnceIsOne) {
    for (int round = 0; round < testsupport::rounds(200); ++round) {
        MutexHandle mutex = round % 2 ? nullptr : MutexCreate();
        int counter = 0;
        testsupport::onThreads(4, [&](int) {
            for (int j = 0; j < 10; ++j) {
                MutexLock(&mutex);
                ++counter;
                MutexUnlock(&mutex);
            }
        });
        EXPECT_EQ(counter, 40);
        MutexDestroy(mutex);
    }
}

TEST(LanguageAbstractionTest, AMisusedMutexLeavesALogLine) {
    LogCapture log;
    MutexHandle mutex = nullptr;
    MutexUnlock(&mutex);
    MutexLock(&mutex);
    MutexLock(&mutex);
    EXPECT_EQ(log.count("MutexLock: the thread holds it already"), 1);
    std::thread([&] {
        EXPECT_FALSE(MutexTryLock(&mutex));
        MutexUnlock(&mutex);
    }).join();
    EXPECT_EQ(log.count("MutexUnlock: the thread does not hold it"), 2);
    MutexUnlock(&mutex);
    MutexDestroy(mutex);
    MutexLock(nullptr);
    MutexUnlock(nullptr);
    EXPECT_FALSE(MutexTryLock(nullptr));
    EXPECT_EQ(log.count("null mutex"), 3);
}

TEST(LanguageAbstractionTest, RunsAThreadOfTheHostInEachPlaceWhichCannotWaitForItself) {
    LogCapture log;
    static std::atomic<int> ran;
    const auto count = [] { ++ran; };
    PluginThreadDestroy();
    for (int i = 1; i <= 2; ++i) {
        PluginThreadCreate(count);
        WatchdogThreadCreate(count);
        PluginThreadDestroy();
        WatchdogThreadDestroy();
        EXPECT_EQ(ran, 2 * i);
    }
    PluginThreadCreate([] {
        PluginThreadDestroy();
        ++ran;
    });
    EXPECT_TRUE(testsupport::eventually([] { return ran == 5; }));
    PluginThreadDestroy();
    EXPECT_TRUE(log.contains("a thread cannot wait for its own end"));
    static std::atomic<bool> mayEnd;
    PluginThreadCreate([] {
        testsupport::eventually([] { return mayEnd.load(); });
        ++ran;
    });
    std::vector<std::future<void>> waiting;
    for (int i = 0; i < 2; ++i) waiting.push_back(std::async(PluginThreadDestroy));
    EXPECT_EQ(waiting[1].wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    EXPECT_EQ(waiting[0].wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    mayEnd = true;
    for (auto& one : waiting) one.get();
    EXPECT_EQ(ran, 6);
    WatchdogThreadCreate(nullptr);
    EXPECT_TRUE(log.contains("no function to run on the new thread"));
}

CHILD_ROLE(startsThreads) {
    if (args[0] == "two in one place") {
        PluginThreadCreate([] {});
        PluginThreadCreate([] {});
    } else if (args[0] == "one that runs on") {
        WatchdogThreadCreate([] { pause(); });
    } else {
        const rlimit none{1 << 20, 1 << 20};
        setrlimit(RLIMIT_AS, &none);
        try {
            PluginThreadCreate([] {});
        } catch (const std::system_error& error) {
            PluginThreadDestroy();
            return std::string(error.what()).find("thread constructor failed") == 0 ? 0 : 2;
        }
        return 1;
    }
    return 0;
}

TEST(HostThreadsAcrossProcesses, AThreadThatCannotBeStartedIsAnErrorAndOneThatRunsOnIsNone) {
    EXPECT_EQ(ChildProcess("startsThreads", {"two in one place"}).wait(), 128 + SIGABRT);
    EXPECT_EQ(ChildProcess("startsThreads", {"one that runs on"}).wait(), 0);
    if (testsupport::kSanitized) GTEST_SKIP() << "a sanitizer needs the address space";
    EXPECT_EQ(ChildProcess("startsThreads", {"no room"}).wait(), 0);
}
