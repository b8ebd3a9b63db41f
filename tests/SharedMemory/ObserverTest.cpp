#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>

#include "LogCapture.h"
#include "SegmentSupport.h"

namespace {

using namespace segmenttest;

// Does what it is told with each message.
class Acting : public SharedMemoryObserverI {
public:
    explicit Acting(std::function<void(const std::string&, SharedMemoryI*)> act)
        : m_act(std::move(act)) {}
    void onNewMessageReceived(std::string message, SharedMemoryI* source) override {
        m_act(message, source);
        ++calls;
    }
    std::atomic<int> calls{0};

private:
    std::function<void(const std::string&, SharedMemoryI*)> m_act;
};

// Stands behind the observers of a test, so that none is called after its end.
class Unsubscribing {
public:
    explicit Unsubscribing(SharedMemoryI& segment) : m_segment(segment) {}
    ~Unsubscribing() { m_segment.unsubscribeAllObservers(); }
    Unsubscribing(const Unsubscribing&) = delete;
    Unsubscribing& operator=(const Unsubscribing&) = delete;

private:
    SharedMemoryI& m_segment;
};

class ObserverTest : public ::testing::Test {
protected:
    bool send(const std::string& message) { return write(*writer, message); }

    const PlainPair pair{64};
    const std::string& name = pair.name;
    const std::shared_ptr<SharedMemoryI> reader = pair.reader;
    const std::shared_ptr<SharedMemoryI> writer = pair.writer;
};

TEST_F(ObserverTest, EveryObserverGetsItsOwnCopy) {
    Collector observers[3];
    const Unsubscribing atEnd(*reader);
    for (auto& observer : observers) reader->subscribeObserver(&observer);
    reader->subscribeObserver(&observers[0]);
    const std::vector<std::string> sent{std::string(200, 'm'), "second"};
    for (const auto& message : sent) ASSERT_TRUE(send(message));
    for (auto& observer : observers) {
        ASSERT_TRUE(observer.waitForCount(2));
        EXPECT_EQ(observer.messages(), sent);
    }
}

TEST_F(ObserverTest, AnObserverMayHandOverToAnotherFromInsideTheCall) {
    Collector next;
    Acting leaving([&](auto&, SharedMemoryI* source) {
        source->unsubscribeObserver(&leaving);
        source->subscribeObserver(&next);
    });
    const Unsubscribing atEnd(*reader);
    reader->subscribeObserver(&leaving);
    ASSERT_TRUE(send("one"));
    ASSERT_TRUE(eventually([&] { return leaving.calls == 1; }));
    ASSERT_TRUE(send("two"));
    ASSERT_TRUE(next.waitForCount(1));
    EXPECT_EQ(next.messages().back(), "two");
    EXPECT_EQ(leaving.calls, 1);
}

TEST_F(ObserverTest, UnsubscribingWaitsForTheRunningCall) {
    std::promise<void> entered;
    std::atomic<bool> done = false;
    Acting slow([&](auto&, auto*) {
        entered.set_value();
        std::this_thread::sleep_for(milliseconds(50));
        done = true;
    });
    Collector staying;
    const Unsubscribing atEnd(*reader);
    reader->subscribeObserver(&slow);
    reader->subscribeObserver(&staying);
    ASSERT_TRUE(send("one"));
    entered.get_future().wait();
    reader->unsubscribeObserver(&slow);
    EXPECT_TRUE(done);
    ASSERT_TRUE(send("two"));
    ASSERT_TRUE(staying.waitForCount(2));
    EXPECT_EQ(slow.calls, 1);
}

TEST_F(ObserverTest, ManyThreadsMayComeAndGo) {
    std::atomic<bool> stop = false;
    std::thread source([&] {
        while (!stop) write(*writer, "message");
    });
    std::vector<std::thread> users;
    for (int i = 0; i < 3; ++i) {
        users.emplace_back([&] {
            for (int round = 0; round < 20; ++round) {
                Collector mine;
                reader->subscribeObserver(&mine);
                if (round % 4 == 0) {
                    EXPECT_TRUE(mine.waitForCount(1));
                }
                reader->unsubscribeObserver(&mine);
            }
        });
    }
    for (auto& user : users) user.join();
    stop = true;
    reader->Close();
    writer->Close();
    source.join();
}

TEST_F(ObserverTest, MisuseIsRefusedAndDoesNotHang) {
    testsupport::LogCapture log;
    Collector collector;
    Acting closing([&](auto&, SharedMemoryI* source) { EXPECT_FALSE(source->Close()); });
    const Unsubscribing atEnd(*reader);
    reader->subscribeObserver(&collector);
    reader->subscribeObserver(&closing);
    ASSERT_TRUE(send("one"));
    ASSERT_TRUE(collector.waitForCount(1));
    ASSERT_TRUE(eventually([&] { return closing.calls == 1; }));
    EXPECT_EQ(log.count("Illegal operation!" + name), 1);

    EXPECT_FALSE(write(*reader, "a reader does not write, not even while its thread runs"));
    EXPECT_EQ(log.count("Illegal operation!" + name), 2);

    writer->subscribeObserver(&collector);
    ASSERT_TRUE(eventually([&] { return log.count("Illegal operation!" + name) == 3; }));
    EXPECT_TRUE(write(*writer, "two"));
    writer->unsubscribeObserver(&collector);
    ASSERT_TRUE(collector.waitForCount(2));
}

TEST_F(ObserverTest, ASegmentMayBeClosedAndOpenedAgainWithItsObservers) {
    Collector collector;
    const Unsubscribing atEnd(*reader);
    reader->subscribeObserver(&collector);
    EXPECT_TRUE(reader->Close());
    EXPECT_FALSE(reader->Close());
    reader->unsubscribeObserver(&collector);
    reader->subscribeObserver(&collector);
    ASSERT_TRUE(reader->Open(name, 64));
    reader->subscribeObserver(&collector);
    ASSERT_TRUE(send("again"));
    ASSERT_TRUE(collector.waitForCount(1));
}

}  // namespace
