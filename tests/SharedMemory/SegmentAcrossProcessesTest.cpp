// Segments between processes, and the roles of the child processes for all tests of segments.
#include "MultipleWritersOneReaderSM.h"
#include "SegmentSupport.h"

namespace {

using namespace segmenttest;

unsigned int number(const std::string& text) { return static_cast<unsigned int>(std::stoul(text)); }

// A varying length, fixed for each number.
std::size_t lengthOf(std::uint32_t messageNumber, std::size_t longest) {
    return messageNumber * 2654435761U % longest;
}

// type, name, capacity, source, count (0: unlimited): writes numbered messages.
CHILD_ROLE(segmentSource) {
    const auto out = getSharedMemoryInstance(static_cast<ESharedMemoryType>(number(args[0])));
    const unsigned int capacity = number(args[2]);
    const unsigned int count = number(args[4]);
    if (!out->Create(args[1], capacity)) return 1;
    say("ready");
    if (count != 0) hear();
    for (std::uint32_t i = 0; count == 0 || i < count; ++i) {
        const std::size_t longest = args[0] == "1" ? capacity : 3 * capacity;
        const auto message = numberedMessage(number(args[3]), i, lengthOf(i, longest));
        if (!write(*out, message)) return 2;
    }
    return 0;
}

// name, capacity: says "good" after the first good message; ends at a damaged one.
CHILD_ROLE(segmentSink) {
    const auto in = plain();
    if (!in->Open(args[0], number(args[1]))) return 1;
    say("ready");
    for (bool first = true;;) {
        const std::string message = read(*in, 1000);
        if (message.empty()) continue;
        if (!readNumbered(message)) return 2;
        if (std::exchange(first, false)) say("good");
    }
}

// name, capacity: takes the write lock and keeps it.
CHILD_ROLE(segmentLockHolder) {
    MultipleWritersOneReaderSM out;
    if (!out.Create(args[0], number(args[1])) || !out.LockWrite(2000)) return 1;
    say("ready");
    hear();
    return 0;
}

// name, capacity, count: reads that many messages of a broadcast, each of which must directly
// follow the previous one, and says the number of the last.
CHILD_ROLE(segmentListener) {
    const auto in = broadcast();
    if (!in->Open(args[0], number(args[1]))) return 1;
    say("ready");
    std::optional<Numbered> id;
    for (unsigned int left = number(args[2]); left > 0; --left) {
        const auto before = id;
        std::string message;
        if (!eventually([&] { return !(message = read(*in)).empty(); })) return 2;
        id = readNumbered(message);
        if (!id || (before && id->number != before->number + 1)) return 3;
    }
    in->Close();
    say(std::to_string(id->number));
    return 0;
}

void killWriters(ESharedMemoryType type, unsigned int capacity, std::size_t readers, int kills) {
    const std::string name = uniqueName();
    std::deque<Checker> checkers(readers);
    std::vector<std::shared_ptr<SharedMemoryI>> segments;
    for (auto& checker : checkers) {
        segments.push_back(getSharedMemoryInstance(type));
        ASSERT_TRUE(segments.back()->Open(name, capacity));
        segments.back()->subscribeObserver(&checker);
    }
    std::mt19937 random(1);
    for (std::uint32_t generation = 1; generation <= static_cast<unsigned>(kills); ++generation) {
        ReadyChild writer("segmentSource",
                          {std::to_string(static_cast<int>(type)), name, std::to_string(capacity),
                           std::to_string(generation), "0"});
        const auto start = Clock::now();
        for (auto& checker : checkers)
            ASSERT_TRUE(eventually([&] { return checker.source() == generation; }));
        ASSERT_LT(since(start), milliseconds(readers == 1 ? 1500 : 20000)) << generation;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
        ASSERT_EQ(writer.killAndWait(), 128 + SIGKILL);
    }
}

TEST(SegmentAcrossProcesses, ReadersContinueAtOnceWithTheNextWriterAfterOneIsKilled) {
    killWriters(ESharedMemoryType::Plain, 64, 1, rounds(250));
    killWriters(ESharedMemoryType::Broadcast, 200, 2, rounds(50));
}

TEST(SegmentAcrossProcesses, AWriterContinuesWithALateReaderAndAfterOneIsKilled) {
    const std::string name = uniqueName();
    const auto writer = plain();
    ASSERT_TRUE(writer->Create(name, 64));
    std::atomic<bool> stop = false;
    auto writing = std::async([&] {
        for (std::uint32_t i = 0; !stop; ++i) write(*writer, numberedMessage(1, i, i % 200));
    });
    std::mt19937 random(2);
    for (int i = 0; i < rounds(250) && !testing::Test::HasFailure(); ++i) {
        ReadyChild sink("segmentSink", {name, "64"});
        const auto start = Clock::now();
        EXPECT_EQ(sink.readLine(), "good") << i;
        EXPECT_LT(since(start), milliseconds(1500)) << i;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        EXPECT_EQ(sink.killAndWait(), 128 + SIGKILL);
    }
    stop = true;
    writer->Close();
}

}  // namespace
