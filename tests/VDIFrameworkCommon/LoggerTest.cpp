#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "ChildProcess.h"
#include "Log.h"
#include "LogAppender.h"
#include "LogCapture.h"
#include "LogLine.h"
#include "Rounds.h"
#include "TempDir.h"

NORVO_LOG_SOURCE("tests/LoggerTest")

using namespace KLT::kltlogger;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using testsupport::ChildProcess;
using testsupport::LogCapture;
using testsupport::TempDir;

namespace {

std::vector<std::string> linesOf(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

LogRecord recordOf(int severity, std::string_view message) {
    return {severity, "VirtualChannel", "src/a/File", 42, "operation", message};
}

std::string textOf(const LogRecord& record) {
    std::string text;
    const LogLine line(record);
    line.appendTo(text);
    EXPECT_EQ(text.size(), line.size());
    return text;
}

}  // namespace

TEST(LogLine, SaysWhenWhoWhereAndWhat) {
    const std::string text = textOf(recordOf(Warning, "bad packet: 23 bytes"));
    std::tm time{};
    int microseconds = -1;
    int process = -1;
    long thread = -1;
    int rest = 0;
    ASSERT_EQ(sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%6dZ %d/%ld %n", &time.tm_year,
                     &time.tm_mon, &time.tm_mday, &time.tm_hour, &time.tm_min, &time.tm_sec,
                     &microseconds, &process, &thread, &rest),
              9)
        << text;
    EXPECT_EQ(text.substr(static_cast<std::size_t>(rest)),
              "WARN VirtualChannel src/a/File:42 operation: bad packet: 23 bytes\n");
    EXPECT_EQ(process, getpid());
    time.tm_year -= 1900;
    time.tm_mon -= 1;
    EXPECT_LE(std::abs(timegm(&time) - std::time(nullptr)), 5) << text;
}

TEST(LogLine, OneRecordIsOneLineWhateverItSays) {
    const std::string text = textOf({Error, "a\nb", "c\rd", 1, "e\tf", {"x\n\x1b\0\x7f|\\y", 8}});
    EXPECT_THAT(text, HasSubstr(R"( ERROR a\nb c\rd:1 e\tf: x\n\x1b\x00\x7f|\y)"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(LogLine, AnEndlessMessageIsCut) {
    const std::string message(LogLine::kMaxMessage + 5, 'm');
    const std::string text = textOf(recordOf(Error, message));
    EXPECT_LT(text.size(), message.size() + 200);
    EXPECT_TRUE(text.ends_with("mmm... (5 bytes more)\n"));
}

TEST(LogAppender, KeepsNotableEventsUntilAFailureOrAFlush) {
    TempDir dir;
    LogAppender appender;
    appender.setFile(dir / "x.log");
    appender.append(recordOf(Info, "one"));
    appender.append(recordOf(Notice, "two"));
    EXPECT_THAT(linesOf(dir / "x.log"), SizeIs(0));
    appender.append(recordOf(Warning, "three"));
    EXPECT_THAT(linesOf(dir / "x.log"),
                ElementsAre(HasSubstr(": one"), HasSubstr(": two"), HasSubstr(": three")));
    appender.append(recordOf(Trace, "four"));
    appender.flush();
    EXPECT_THAT(linesOf(dir / "x.log"), SizeIs(4));
}

TEST(LogAppender, AFullBufferIsWritten) {
    TempDir dir;
    LogAppender appender;
    appender.setFile(dir / "x.log");
    const std::string message(LogAppender::kBufferBytes / 4, 'm');
    for (int i = 0; i < 4; ++i) appender.append(recordOf(Info, message));
    EXPECT_THAT(linesOf(dir / "x.log"), SizeIs(4));
}

TEST(LogAppender, ABufferedRecordIsWrittenWithinASecondOrSo) {
    TempDir dir;
    LogAppender appender;
    appender.setFile(dir / "x.log");
    for (const std::size_t expected : {1U, 2U}) {
        const auto start = std::chrono::steady_clock::now();
        appender.append(recordOf(Info, "quiet"));
        while (linesOf(dir / "x.log").size() < expected &&
               std::chrono::steady_clock::now() - start < std::chrono::seconds(20)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        EXPECT_THAT(linesOf(dir / "x.log"), SizeIs(expected));
        EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    }
}

TEST(LogAppender, WritesAtOnceAfterItsEnd) {
    TempDir dir;
    LogAppender appender;
    appender.setFile(dir / "x.log");
    appender.append(recordOf(Info, "before"));
    appender.finish();
    appender.finish();
    appender.append(recordOf(Trace, "after"));
    EXPECT_THAT(linesOf(dir / "x.log"), ElementsAre(HasSubstr("before"), HasSubstr("after")));
}

TEST(LogAppender, AnotherPathGetsOnlyWhatComesAfter) {
    TempDir dir;
    LogAppender appender;
    appender.setFile(dir / "a.log");
    appender.append(recordOf(Info, "one"));
    appender.setFile(dir / "b.log");
    appender.append(recordOf(Info, "two"));
    appender.setFile("");
    EXPECT_FALSE(appender.hasDestination());
    appender.append(recordOf(Error, "three"));
    EXPECT_THAT(linesOf(dir / "a.log"), ElementsAre(HasSubstr("one")));
    EXPECT_THAT(linesOf(dir / "b.log"), ElementsAre(HasSubstr("two")));
}

TEST(LogAppender, FourThreadsLoseAndTearNoLine) {
    TempDir dir;
    LogAppender appender(off_t{1} << 40);
    appender.setFile(dir / "x.log");
    constexpr std::size_t kThreads = 4;
    const int perThread = testsupport::rounds(250000);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                appender.append(recordOf(i % 10000 == 0 ? Warning : Info, compose(t, ' ', i)));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    appender.flush();

    std::vector<int> next(kThreads, 0);
    std::ifstream file(dir / "x.log");
    for (std::string line; std::getline(file, line);) {
        const auto message = line.find("operation: ");
        ASSERT_NE(message, std::string::npos) << line;
        std::istringstream numbers(line.substr(message + 11));
        std::size_t thread = kThreads;
        numbers >> thread;
        ASSERT_LT(thread, kThreads) << line;
        ASSERT_TRUE(line.ends_with(compose(": ", thread, ' ', next[thread]++))) << line;
    }
    EXPECT_THAT(next, testing::Each(perThread));
}

TEST(Logger, ALineThatIsOffComposesNothing) {
    LogCapture log(Notice);
    int composed = 0;
    const auto part = [&] {
        ++composed;
        return "text";
    };
    NORVO_LOG(Info, part());
    EXPECT_EQ(composed, 0);
    NORVO_LOG(Notice, part(), ' ', 7, ' ', true, ' ', static_cast<const char*>(nullptr));
    EXPECT_THAT(log.lines(), ElementsAre("text 7 1 (null)"));
}

TEST(Logger, IsOffWhileThereIsNowhereToWrite) {
    EXPECT_FALSE(isEnabled(Fatal));
    {
        LogCapture log;
        EXPECT_TRUE(isEnabled(Trace));
        EXPECT_TRUE(VirtualChannelLogger_getInstance());
    }
    EXPECT_FALSE(isEnabled(Fatal));
    VirtualChannelLogger_init("");
    EXPECT_TRUE(VirtualChannelLogger_getInstance());
    EXPECT_FALSE(isEnabled(Fatal));
    VirtualChannelLogger_setAppenderType(LogAppenderType::Stderr);
    EXPECT_TRUE(isEnabled(Info));
    VirtualChannelLogger_setAppenderType(LogAppenderType::File);
}

TEST(Logger, ThresholdIsClampedAndHoldsForTheLogObject) {
    LogCapture log;
    setThreshold(99);
    EXPECT_TRUE(isEnabled(Trace));
    setThreshold(Error);
    const auto object = VirtualChannelLogger_getInstance();
    object->log("host", Error, "source", 1, "op", "kept");
    object->log("host", Warning, "source", 1, "op", "dropped");
    object->log("host", 0, "source", 1, "op", "no severity");
    setThreshold(-4);
    object->log("host", Fatal, "source", 1, "op", "dropped");
    EXPECT_THAT(log.lines(), ElementsAre("kept"));
}

TEST(Logger, LoggersOfOneNameAreOne) {
    const auto handle = KLTLogger_getLogger("VirtualChannel");
    EXPECT_EQ(handle, KLTLogger_getLogger("VirtualChannel"));
    EXPECT_NE(handle, KLTLogger_getLogger("Other"));
    EXPECT_STREQ(KLTLogger_getName(handle), "VirtualChannel");
    EXPECT_STREQ(KLTLogger_getName(KLTLogger_getLogger(nullptr)), "");
    EXPECT_STREQ(KLTLogger_getName(nullptr), "");
}

TEST(Logger, FlushIfAllowedSparesTheDiskInAStorm) {
    TempDir dir;
    VirtualChannelLogger_init(dir / "x.log");
    VirtualChannelLogger_flush();
    NORVO_LOG(Info, "one");
    VirtualChannelLogger_flushBufferIfAllowed();
    const auto soonAfter = linesOf(dir / "x.log").size();
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    VirtualChannelLogger_flushBufferIfAllowed();
    EXPECT_EQ(soonAfter, 0U);
    EXPECT_THAT(linesOf(dir / "x.log"), SizeIs(1));
    VirtualChannelLogger_init("");
}

// Logs, then leaves in the way it is told to.
CHILD_ROLE(loggingProcess) {
    VirtualChannelLogger_init(args[0]);
    NORVO_LOG(Info, "buffered");
    NORVO_LOG(Trace, "off by default");
    if (args[1] == "fork") {
        const pid_t child = fork();
        NORVO_LOG(Info, child == 0 ? "child" : "parent");
        if (child == 0) std::exit(0);
        waitpid(child, nullptr, 0);
    } else if (args[1] == "threads") {
        for (int i = 0; i < 4; ++i) {
            std::thread([] {
                for (;; usleep(100)) NORVO_LOG(Info, "still running");
            }).detach();
        }
    }
    return 0;
}

TEST(LoggerAcrossProcesses, TheEndOfTheProcessWritesWhatIsBuffered) {
    TempDir dir;
    EXPECT_EQ(ChildProcess("loggingProcess", {dir / "x.log", "plain"}).wait(), 0);
    EXPECT_THAT(linesOf(dir / "x.log"), ElementsAre(HasSubstr("buffered")));
}

TEST(LoggerAcrossProcesses, AProcessEndsWhileItsThreadsLog) {
    TempDir dir;
    // A leak check would stop at the threads that still run.
    ChildProcess child("loggingProcess", {dir / "x.log", "threads"},
                       {"ASAN_OPTIONS=detect_leaks=0"});
    EXPECT_EQ(child.wait(), 0);
    EXPECT_THAT(linesOf(dir / "x.log").front(), HasSubstr("buffered"));
}

TEST(LoggerAcrossProcesses, AForkedChildRepeatsNothingAndEnds) {
    TempDir dir;
    // A leak check in a forked child may wait forever for a lock that a thread of the parent held.
    ChildProcess child("loggingProcess", {dir / "x.log", "fork"}, {"ASAN_OPTIONS=detect_leaks=0"});
    EXPECT_EQ(child.wait(), 0);
    const auto lines = linesOf(dir / "x.log");
    ASSERT_THAT(lines, testing::UnorderedElementsAre(HasSubstr("buffered"), HasSubstr("parent"),
                                                     HasSubstr("child")));
    std::set<std::string> ids;
    for (const auto& line : lines) ids.insert(line.substr(28, line.find(' ', 28) - 28));
    EXPECT_THAT(ids, SizeIs(2));
}

CHILD_ROLE(thresholdReader) {
    VirtualChannelLogger_setAppenderType(LogAppenderType::Stderr);
    VirtualChannelLogger_init("");
    std::printf("%d\n", g_activeThreshold.load());
    return 0;
}

TEST(LoggerAcrossProcesses, TheEnvironmentSetsTheThreshold) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"0", "0"}, {"3", "3"}, {"6", "6"}, {"7", "5"}, {"-1", "5"}, {"3x", "5"}, {"", "5"}};
    for (const auto& [value, threshold] : cases) {
        ChildProcess child("thresholdReader", {}, {"NORVO_VDI_LOG_LEVEL=" + value});
        EXPECT_EQ(child.readLine(), threshold) << value;
    }
}
