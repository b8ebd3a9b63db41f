#include "SegmentSupport.h"
#include "StandIn.h"

namespace {

using namespace segmenttest;

class ObserverTest : public ::testing::Test {
protected:
    Collector& observe(Collector::Action action = {}) {
        m_observers.emplace_back(std::move(action));
        reader->subscribeObserver(&m_observers.back());
        return m_observers.back();
    }
    // Whether `message`, when sent, becomes the last of `count` messages at `observer`.
    bool reaches(const Collector& observer, std::size_t count, const std::string& message) {
        return write(*writer, message) && observer.waitForCount(count) &&
               observer.last() == message && observer.messages().size() == count;
    }

private:
    std::deque<Collector> m_observers;  // outlive the read thread
    const PlainPair m_pair{64};

protected:
    const std::shared_ptr<SharedMemoryI> reader = m_pair.reader;
    const std::shared_ptr<SharedMemoryI> writer = m_pair.writer;
};

TEST_F(ObserverTest, EveryObserverGetsItsOwnCopyOnce) {
    Collector& first = observe();
    Collector& second = observe();
    reader->subscribeObserver(&first);
    const Texts sent{std::string(200, 'm'), "second"};
    for (const auto& message : sent) ASSERT_TRUE(write(*writer, message));
    for (const auto* each : {&first, &second}) {
        ASSERT_TRUE(each->waitForCount(2));
        EXPECT_EQ(each->messages(), sent);
    }
}

TEST_F(ObserverTest, AnObserverMayHandOverToAnotherFromInsideTheCall) {
    Collector next;
    Collector* self = nullptr;
    Collector& leaving = observe([&](SharedMemoryI& source) {
        source.unsubscribeObserver(self);
        source.subscribeObserver(&next);
    });
    self = &leaving;
    EXPECT_TRUE(reaches(leaving, 1, "one"));
    EXPECT_TRUE(reaches(next, 1, "two"));
    EXPECT_EQ(leaving.messages().size(), 1U);
    reader->unsubscribeObserver(&next);
}

TEST_F(ObserverTest, WhatOneObserverThrowsHarmsNobody) {
    const auto fail = [](auto&) { throw std::bad_alloc(); };
    Collector& failing = observe(fail);
    Collector& staying = observe();
    observe(fail);
    EXPECT_TRUE(reaches(staying, 1, "one"));
    EXPECT_TRUE(reaches(staying, 2, "two"));
    reader->unsubscribeObserver(&failing);
    EXPECT_TRUE(reaches(staying, 3, "three"));
}

TEST_F(ObserverTest, UnsubscribingWaitsForTheRunningCall) {
    std::promise<void> entered;
    std::atomic<bool> done = false;
    Collector& slow = observe([&](auto&) {
        entered.set_value();
        std::this_thread::sleep_for(milliseconds(50));
        done = true;
    });
    const Collector& staying = observe();
    ASSERT_TRUE(write(*writer, "one"));
    entered.get_future().wait();
    reader->unsubscribeObserver(&slow);
    EXPECT_TRUE(done);
    EXPECT_TRUE(reaches(staying, 2, "two"));
    EXPECT_EQ(slow.messages().size(), 1U);
}

TEST_F(ObserverTest, ManyThreadsMayComeAndGo) {
    std::atomic<bool> stop = false;
    auto source = std::async([&] {
        while (!stop) write(*writer, "message");
    });
    onThreads(3, [&](int) {
        for (int round = 0; round < 20; ++round) {
            Collector mine;
            reader->subscribeObserver(&mine);
            EXPECT_TRUE(round % 4 != 0 || mine.waitForCount(1));
            reader->unsubscribeObserver(&mine);
        }
    });
    stop = true;
    reader->Close();
    writer->Close();
}

TEST_F(ObserverTest, MisuseIsRefusedWithoutHanging) {
    LogCapture log;
    const std::string line = "Illegal operation!" + reader->getName();
    Collector& closing = observe([](SharedMemoryI& source) { EXPECT_FALSE(source.Close()); });
    EXPECT_TRUE(reaches(closing, 1, "one"));
    EXPECT_EQ(log.count(line), 1);

    EXPECT_FALSE(write(*reader, "a reader does not write, not even while its thread runs"));
    EXPECT_EQ(log.count(line), 1) << "counted only";

    Collector none;
    writer->subscribeObserver(&none);
    EXPECT_TRUE(eventually([&] { return log.count(line) == 2; }));
    writer->unsubscribeObserver(&none);
    EXPECT_TRUE(reaches(closing, 2, "two"));
}

// Has a thread that waits in place of the segment's read thread, and refuses every fifth message.
class Substituted : public Checker {
public:
    ~Substituted() override {
        m_ends = true;
        wake();
        m_thread.join();
    }
    std::shared_ptr<VDIFrameworkCommon::StandIn> standIn() override { return m_standIn; }
    bool takeAtOnce(const std::string& message) override {
        if (++m_offered % 5 == 0) return false;
        onNewMessageReceived(message, nullptr);
        ++taken;
        return true;
    }
    void giveAllBack() { m_standIn->giveAllBack(); }

    std::atomic<unsigned int> taken{0};

private:
    void wake() {
        ++m_wakeUps;
        VDIFrameworkCommon::wakeOne(m_wakeUps);
    }
    void run() {
        while (!m_ends) {
            const std::uint64_t wakeUps = m_wakeUps;
            m_standIn->serve();
            m_standIn->sleep({&m_wakeUps, wakeUps}, std::chrono::steady_clock::now() + 10s);
        }
        m_standIn->close();
    }

    unsigned int m_offered = 0;
    std::atomic<bool> m_ends{false};
    VDIFrameworkCommon::WaitWord m_wakeUps{0};
    const std::shared_ptr<VDIFrameworkCommon::StandIn> m_standIn =
        std::make_shared<VDIFrameworkCommon::StandIn>([this] { wake(); });
    std::thread m_thread{[this] { run(); }};
};

TEST(StandInTest, NoMessageIsLostWhoeverWaitsForIt) {
    if (!VDIFrameworkCommon::canWaitOnAnyAddress()) GTEST_SKIP() << "not on this system";
    const PlainPair pair(30000);
    Substituted observer;
    pair.reader->subscribeObserver(&observer);
    std::uint32_t sent = 0;
    const auto send = [&](std::size_t length) {
        ASSERT_TRUE(write(*pair.writer, numberedMessage(1, sent++, length)));
    };
    for (int round = 0; round < 6; ++round) {
        const unsigned int before = observer.taken;
        for (int i = 0; i < 1000 && observer.taken < before + 10; ++i) {
            send(20 + std::size_t(i));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        EXPECT_GE(observer.taken, before + 10);
        if (round % 3 == 1) observer.giveAllBack();
        for (const std::size_t length : {20U, 16384U, 16385U, 70000U, 20U, 20U, 30000U})
            send(length);
        EXPECT_TRUE(eventually([&] { return observer.count() == sent; }));
    }
    pair.reader->unsubscribeObserver(&observer);
    EXPECT_EQ(observer.count(), sent);
}

TEST_F(ObserverTest, ASegmentMayBeClosedAndOpenedAgainWithItsObservers) {
    const std::string name = reader->getName();
    Collector& collector = observe();
    EXPECT_TRUE(reader->Close());
    EXPECT_FALSE(reader->Close());
    reader->unsubscribeObserver(&collector);
    reader->subscribeObserver(&collector);
    ASSERT_TRUE(reader->Open(name, 64));
    reader->subscribeObserver(&collector);
    EXPECT_TRUE(reaches(collector, 1, "again"));
}

}  // namespace
