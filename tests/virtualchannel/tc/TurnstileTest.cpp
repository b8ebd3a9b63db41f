// The order in which messages of streams reach the worker, and what ends their wait. The worker
// does not run; the test takes its items.
#include "Turnstile.h"

#include <gtest/gtest.h>

#include <future>
#include <numeric>

#include "Eventually.h"
#include "WorkRecord.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;
using NorvoVirtualChannel::StreamSend;

namespace {

constexpr FlowLimits kLimits{.slice = 2, .quantum = 4, .backlog = 6, .lowWater = 3, .stage = 8};

class TurnstileTest : public testing::Test {
protected:
    class Message : public Turnstile::Message {
    public:
        Message(Journal& journal, char name, std::size_t packets)
            : m_journal(journal), m_name(name), m_left(packets) {}
        std::size_t remaining() const override { return m_left; }
        void cut(std::size_t count, std::vector<WorkItem>& stage) override {
            count = std::min(count, m_left);
            EXPECT_LE(count, kLimits.stage);
            for (; count > 0; --count, --m_left) stage.push_back(note(m_journal, {m_name}));
        }

    private:
        Journal& m_journal;
        const char m_name;
        std::size_t m_left;
    };

    TurnstileTest() {
        m_turnstile.open();
        m_turnstile.setAvailable(true, &m_worker);
    }

    // Sends a message on a new thread, and returns once that waits or is done.
    std::future<StreamSend> bring(char name, std::size_t packets, bool lowPriority = false) {
        auto result = std::async(std::launch::async, [=, this] {
            Message message(m_journal, name, packets);
            return m_turnstile.pass(message, lowPriority, m_worker,
                                    [&] { return m_goesOn.load(); });
        });
        const std::size_t before = m_waiting;
        EXPECT_TRUE(eventually([&] {
            m_waiting = m_turnstile.waiting();
            return m_waiting > before || isThere(result);
        }));
        return result;
    }
    static bool isThere(std::future<StreamSend>& result) {
        return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    // Runs up to `count` items as the worker would; returns their names.
    std::string run(std::size_t count) {
        const std::size_t before = m_journal.entries().size();
        for (std::size_t i = 0; i < count; ++i) {
            m_turnstile.refill(m_worker);
            EXPECT_LE(m_worker.backlog(false), kLimits.backlog);
            EXPECT_LE(m_worker.backlog(true), kLimits.backlog);
            if (const WorkItem item = m_worker.popWork()) item->DoWork();
        }
        const auto entries = m_journal.entries();
        const auto first = entries.begin() + static_cast<std::ptrdiff_t>(before);
        return std::accumulate(first, entries.end(), std::string());
    }

    Journal m_journal;
    std::atomic<bool> m_goesOn{true};
    std::size_t m_waiting = 0;
    Turnstile m_turnstile{kLimits};
    WorkerThread m_worker{{}, &m_turnstile};
};

}  // namespace

TEST_F(TurnstileTest, LetsThroughAtOnceWhatTheWorkerHasRoomFor) {
    for (const char name : {'a', 'b', 'c'}) EXPECT_EQ(bring(name, 2).get(), StreamSend::Sent);
    EXPECT_EQ(run(7), "aabbcc");
}

TEST_F(TurnstileTest, LongMessagesTakeTurnsOfAQuantum) {
    std::vector<std::future<StreamSend>> senders;
    for (const char name : {'a', 'b', 'c'}) senders.push_back(bring(name, 8));
    EXPECT_EQ(run(30), "aaaaaaaabbbbccccbbbbcccc");  // the first six of a passed at once
    for (auto& sender : senders) EXPECT_EQ(sender.get(), StreamSend::Sent);
}

TEST_F(TurnstileTest, ShortMessagesComeBetweenTheSlicesOfLongOnesThreeForOne) {
    std::vector<std::future<StreamSend>> senders;
    for (const char name : {'a', 'b'}) senders.push_back(bring(name, 8));
    for (const char name : {'1', '2', '3', '4', '5'}) senders.push_back(bring(name, 1));
    EXPECT_EQ(run(30), "aaaaaa123aa45bbbbbbbb");
    for (auto& sender : senders) EXPECT_EQ(sender.get(), StreamSend::Sent);
}

TEST_F(TurnstileTest, AMessageOfManyStagesArrivesWhole) {
    auto sender = bring('a', 100);
    std::string names;
    EXPECT_TRUE(eventually([&] { return (names += run(1)).size() == 100; }));
    EXPECT_EQ(sender.get(), StreamSend::Sent);
}

TEST_F(TurnstileTest, LowPriorityIsALaneOfItsOwn) {
    auto bulk = bring('l', 8, true);
    EXPECT_EQ(bring('h', 6).get(), StreamSend::Sent);
    EXPECT_EQ(run(14), "hhhlhhhlllllll");
    EXPECT_EQ(bulk.get(), StreamSend::Sent);
}

TEST_F(TurnstileTest, WaitsWhileTheTransportTakesNothing) {
    m_turnstile.setAvailable(false, &m_worker);
    auto a = bring('a', 2);
    EXPECT_EQ(run(3), "");
    m_turnstile.setAvailable(true, &m_worker);
    EXPECT_EQ(a.get(), StreamSend::Sent);
    EXPECT_EQ(run(3), "aa");
}

TEST_F(TurnstileTest, WhatEndsTheWaitingSaysWhatHasBecomeOfTheMessage) {
    const struct {
        const char* what;
        std::function<void()> happens;
        StreamSend notBegun;
    } cases[] = {
        {"the end of the connection", [&] { m_turnstile.close(); }, StreamSend::NotSent},
        {"a reset", [&] { m_turnstile.reset(&m_worker); }, StreamSend::Dropped},
        {"the sender's own end",
         [&] {
             m_goesOn = false;
             m_turnstile.wakeSenders();
         },
         StreamSend::NotSent},
    };
    for (const auto& [what, happens, notBegun] : cases) {
        SCOPED_TRACE(what);
        auto begun = bring('a', 100);
        auto notYet = bring('b', 100);
        happens();
        EXPECT_EQ(begun.get(), StreamSend::Dropped);
        EXPECT_EQ(notYet.get(), notBegun);
        m_turnstile.reset(&m_worker);
        EXPECT_EQ(run(3), "");  // nothing of theirs comes after it
        m_waiting = 0;
        m_goesOn = true;
        m_turnstile.open();
    }
}

TEST_F(TurnstileTest, IsClosedAtFirstAndAfterTheEndOfAConnection) {
    Turnstile closed(kLimits);
    Message message(m_journal, 'a', 1);
    EXPECT_EQ(closed.pass(message, false, m_worker, [] { return true; }), StreamSend::NotSent);
    m_turnstile.close();
    EXPECT_EQ(bring('b', 1).get(), StreamSend::NotSent);
    EXPECT_EQ(m_worker.QueueSize(), 0U);
}
