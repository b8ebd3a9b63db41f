#include <regex>

#include "FrameworkSupport.h"
#include "Log.h"
#include "LogAppender.h"
#include "LogLine.h"
#include "Namespace.h"

using namespace frameworktest;
using namespace KLT::kltlogger;

namespace {

// The message part of each line of a log file.
Texts messagesOf(const std::string& path) {
    Texts messages = linesOf(path);
    for (auto& line : messages) line.erase(0, line.rfind(": ") + 2);
    return messages;
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

// A log file in a temporary folder.
class LogFileHolder : public testing::Test {
protected:
    Texts written() const { return messagesOf(path); }

    const TempDir dir;
    const std::string path = dir / "x.log";
};

class LogAppenderTest : public LogFileHolder {
protected:
    LogAppenderTest() { appender.setFile(path); }
    LogAppender appender{nullptr, off_t{1} << 40};
};

// Makes the process log into the file.
class LoggerFileTest : public LogFileHolder {
protected:
    LoggerFileTest() { VirtualChannelLogger_init(path); }
    ~LoggerFileTest() override { VirtualChannelLogger_init(""); }
};

TEST(LogLine, HasTimeProcessSourceAndMessage) {
    const std::string text = textOf(recordOf(Warning, "bad packet: 23 bytes"));
    const std::regex form(
        R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\.\d{6}Z (\d+)/\d+ \[(.*)\] WARN VirtualChannel )"
        R"(src/a/File:42 operation: bad packet: 23 bytes\n)");
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(text, parts, form)) << text;
    std::tm time{};
    strptime(parts.str(1).c_str(), "%Y-%m-%dT%H:%M:%S", &time);
    EXPECT_LE(std::abs(timegm(&time) - std::time(nullptr)), 5) << text;
    EXPECT_EQ(parts.str(2), std::to_string(getpid()));
    EXPECT_EQ(parts.str(3), sessionNamespace());
}

TEST(LogLine, OneRecordIsOneLineOfBoundedLengthWhateverItSays) {
    const std::string odd = textOf({Error, "a\nb", "c\rd", 1, "e\tf", {"x\n\x1b\0\x7f|\\y", 8}});
    EXPECT_TRUE(odd.ends_with(" ERROR a\\nb c\\rd:1 e\\tf: x\\n\\x1b\\x00\\x7f|\\y\n")) << odd;
    const std::string message(LogLine::kMaxMessage + 5, 'm');
    const std::string cut = textOf(recordOf(Error, message));
    EXPECT_LT(cut.size(), message.size() + 200);
    EXPECT_TRUE(cut.ends_with("mmm... (5 bytes more)\n"));
}

TEST_F(LogAppenderTest, KeepsNotableEventsUntilAFailureAFullBufferOrTheEnd) {
    appender.append(recordOf(Info, "one"));
    appender.append(recordOf(Notice, "two"));
    EXPECT_EQ(written(), Texts());
    appender.append(recordOf(Warning, "three"));
    EXPECT_EQ(written(), (Texts{"one", "two", "three"}));
    const std::string quarter(LogAppender::kBufferBytes / 4, 'm');
    for (int i = 0; i < 4; ++i) appender.append(recordOf(Info, quarter));
    EXPECT_EQ(written().size(), 7U);
    appender.append(recordOf(Trace, "before"));
    appender.setFile(dir / "b.log");
    EXPECT_EQ(written().back(), "before") << "another path gets only what comes after";
    EXPECT_FALSE(appender.setFile(dir / "b.log/no folder"));
    appender.append(recordOf(Info, "last"));
    appender.finish();
    appender.finish();
    appender.append(recordOf(Trace, "after the end"));
    EXPECT_EQ(messagesOf(dir / "b.log"), (Texts{"last", "after the end"}));
    appender.setFile("");
    EXPECT_FALSE(appender.hasDestination());
    appender.append(recordOf(Error, "nowhere"));
    EXPECT_EQ(messagesOf(dir / "b.log").size(), 2U);
}

TEST_F(LogAppenderTest, ABufferedRecordIsWrittenAfterASecond) {
    for (const std::size_t expected : {1U, 2U}) {
        appender.append(recordOf(Info, "quiet"));
        EXPECT_EQ(written().size(), expected - 1);
        EXPECT_TRUE(eventually([&] { return written().size() == expected; }));
    }
}

TEST_F(LogAppenderTest, FourThreadsNeitherLoseNorMixLines) {
    constexpr int kThreads = 4;
    const int perThread = rounds(250000);
    onThreads(kThreads, [&](int number) {
        for (int i = 0; i < perThread; ++i)
            appender.append(recordOf(i % 10000 == 0 ? Warning : Info, compose(number, ' ', i)));
    });
    appender.flush();
    std::vector<int> next(kThreads, 0);
    for (const auto& message : written()) {
        const auto thread = static_cast<std::size_t>(message[0] - '0');
        ASSERT_LT(thread, next.size()) << message;
        ASSERT_EQ(message, compose(thread, ' ', next[thread]++));
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, perThread));
}

TEST(Logger, ADisabledLineIsNotComposed) {
    LogCapture log(Notice);
    int composed = 0;
    NORVO_LOG(Info, ++composed);
    EXPECT_EQ(composed, 0);
    NORVO_LOG(Notice, "text", ' ', 7, ' ', true, ' ', static_cast<const char*>(nullptr));
    EXPECT_EQ(log.lines(), Texts{"text 7 1 (null)"});
}

TEST(Logger, IsOffWithoutADestination) {
    EXPECT_FALSE(isEnabled(Fatal));
    {
        const LogCapture log;
        EXPECT_TRUE(isEnabled(Trace));
    }
    EXPECT_FALSE(isEnabled(Fatal));
    VirtualChannelLogger_init("");
    EXPECT_TRUE(VirtualChannelLogger_getInstance());
    EXPECT_FALSE(isEnabled(Fatal));
    VirtualChannelLogger_setAppenderType(LogAppenderType::Stderr);
    EXPECT_TRUE(isEnabled(Info));
    VirtualChannelLogger_setAppenderType(LogAppenderType::File);
}

TEST(Logger, TheThresholdIsClampedAndLoggersAreSharedByName) {
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
    EXPECT_EQ(log.lines(), Texts{"kept"});
    const auto handle = KLTLogger_getLogger("VirtualChannel");
    EXPECT_EQ(handle, KLTLogger_getLogger("VirtualChannel"));
    EXPECT_NE(handle, KLTLogger_getLogger("Other"));
    EXPECT_STREQ(KLTLogger_getName(handle), "VirtualChannel");
    EXPECT_STREQ(KLTLogger_getName(KLTLogger_getLogger(nullptr)), "");
    EXPECT_STREQ(KLTLogger_getName(nullptr), "");
}

TEST_F(LoggerFileTest, FlushIfAllowedIsLimitedToOncePerTenthOfASecond) {
    VirtualChannelLogger_flush();
    NORVO_LOG(Info, "one");
    VirtualChannelLogger_flushBufferIfAllowed();
    const auto soonAfter = written();
    std::this_thread::sleep_for(120ms);
    VirtualChannelLogger_flushBufferIfAllowed();
    EXPECT_EQ(soonAfter, Texts());
    EXPECT_EQ(written(), Texts{"one"});
}

LogRepeats::Time g_now;

TEST(LogRepeats, LogsTheFirstThenCountsAtGrowingIntervals) {
    LogCapture log;
    g_now = {};
    auto repeats = std::make_unique<LogRepeats>([] { return g_now; });
    const auto happens = [&](int times, std::chrono::milliseconds apart) {
        for (int i = 0; i < times; ++i, g_now += apart)
            NORVO_LOG_REPEATED(*repeats, Error, "lost in ", i);
    };
    happens(20001, 1ms);
    EXPECT_EQ(log.lines(), (Texts{"lost in 0", "lost in 10000 ... 10,000 more in 10 s"}));
    log.clear();
    happens(300, 1s);
    EXPECT_EQ(log.lines(), Texts{"lost in 50 ... 10,051 more in 60 s"}) << "then after 360 s";
    log.clear();
    g_now += 59s;
    EXPECT_EQ(LogRepeats::reportDue(false) - g_now, 70s + 360s - 20s - 300s - 60s + 1s);
    g_now += 1s;
    happens(1, 1s);
    EXPECT_EQ(log.lines(), Texts{"lost in 0 ... 249 more in 310 s"}) << "quiet for a minute";
    log.clear();
    happens(3, 1s);
    g_now += 6s;
    EXPECT_EQ(LogRepeats::reportDue(false), LogRepeats::Time::max());
    EXPECT_EQ(log.lines(), Texts{"lost in 0 ... 3 more in 10 s"}) << "without a next one";
    happens(2, 1s);
    repeats->settled();
    happens(3, 1s);
    repeats.reset();
    EXPECT_EQ(log.lines(), (Texts{"lost in 0 ... 3 more in 10 s", "lost in 0 ... 2 more in 2 s",
                                  "lost in 0", "lost in 0 ... 2 more in 3 s"}));
}

TEST_F(LoggerFileTest, ACountOfRepeatsIsWrittenWithoutAFurtherCall) {
    static std::atomic<int> late = 0;
    LogRepeats repeats([] { return Clock::now() + late.load() * 10s; });
    for (int i = 0; i < 3; ++i) NORVO_LOG_REPEATED(repeats, Error, "lost");
    late = 1;
    scheduleReport(Clock::now());
    EXPECT_TRUE(eventually([&] { return written().size() == 2; }));
    EXPECT_EQ(written().back(), "lost ... 2 more in 10 s");
}

// Logs, then exits with a forked child or while other threads still log.
CHILD_ROLE(loggingProcess) {
    VirtualChannelLogger_init(args[0]);
    NORVO_LOG(Info, "buffered");
    NORVO_LOG(Trace, "off by default");
    LogRepeats repeats(
        [] { return LogRepeats::Time(); });  // stopped clock: a child may take a second to end
    for (int i = 0; i < 3; ++i) NORVO_LOG_REPEATED(repeats, Info, "repeated");
    if (args[1] == "fork") {
        const pid_t child = fork();
        NORVO_LOG(Info, child == 0 ? "child" : "parent");
        if (child == 0) std::exit(0);  // without destroying `repeats`, whose sum is logged anyway
        waitpid(child, nullptr, 0);
        return 0;
    }
    for (int i = 0; i < 4; ++i) {
        std::thread([] {
            for (;; usleep(100)) NORVO_LOG(Info, "still running");
        }).detach();
    }
    return 0;
}

// The log lines of a process that ends in the given way. A leak check would report the running
// threads, or deadlock in the forked child on a lock held by a thread of the parent.
Texts linesOfAnEnd(const std::string& way) {
    const TempDir dir;
    ChildProcess child("loggingProcess", {dir / "x.log", way}, {"ASAN_OPTIONS=detect_leaks=0"});
    EXPECT_EQ(child.wait(), 0) << way;
    return linesOf(dir / "x.log");
}

TEST(LoggerAcrossProcesses, TheEndOfAProcessAndItsForkedChildWritesOnceWhatIsBuffered) {
    std::set<std::string> processes;
    std::multiset<std::string> messages;
    for (const auto& line : linesOfAnEnd("fork")) {
        processes.insert(line.substr(28, line.find(' ', 28) - 28));
        messages.insert(line.substr(line.rfind(": ") + 2));
    }
    EXPECT_EQ(messages, (std::multiset<std::string>{"buffered", "child", "parent", "repeated",
                                                    "repeated ... 2 more in 0 s"}));
    EXPECT_EQ(processes.size(), 2U);
    const Texts lines = linesOfAnEnd("threads");
    EXPECT_TRUE(!lines.empty() && lines.front().ends_with(": buffered"));
}

CHILD_ROLE(thresholdReader) {
    VirtualChannelLogger_setAppenderType(LogAppenderType::Stderr);
    VirtualChannelLogger_init("");
    say(std::to_string(g_activeThreshold.load()));
    return 0;
}

TEST(LoggerAcrossProcesses, TheEnvironmentSetsTheThreshold) {
    const std::pair<const char*, const char*> cases[] = {{"0", "0"},  {"6", "6"},  {"7", "5"},
                                                         {"-1", "5"}, {"3x", "5"}, {"", "5"}};
    for (const auto& [value, threshold] : cases) {
        ChildProcess child("thresholdReader", {}, {std::string("NORVO_VDI_LOG_LEVEL=") + value});
        EXPECT_EQ(child.readLine(), threshold) << value;
    }
}

}  // namespace
