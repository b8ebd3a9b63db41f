// The order in which messages of streams reach the worker, and what ends their wait. The worker
// does not run; the test takes its items.
#include "Turnstile.h"

#include "TestSupport.h"
#include "WorkRecord.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;
using NorvoVirtualChannel::StreamSend;

namespace {

constexpr FlowLimits limits(std::size_t alone) {
    return {.slice = 2,
            .quantum = 4,
            .backlog = 6,
            .alone = alone,
            .lowWater = 3,
            .stage = 8,
            .first = 8};
}
constexpr FlowLimits kLimits = limits(6);
constexpr FlowLimits kDeeperAlone = limits(10);

class TurnstileTest : public testing::Test {
protected:
    struct Sender {
        char name;
        std::size_t packets;
        bool lowPriority = false;
    };
    class Message : public Turnstile::Message {
    public:
        Message(std::string& ran, const Sender& sender) : m_ran(ran), m_sender(sender) {}
        std::size_t remaining() const override { return m_sender.packets; }
        void cut(std::size_t count, std::vector<WorkItem>& stage) override {
            count = std::min(count, remaining());
            EXPECT_LE(count, kLimits.stage);
            m_sender.packets -= count;
            for (; count > 0; --count)
                stage.push_back(work([&ran = m_ran, name = m_sender.name] { ran += name; }));
        }

    private:
        std::string& m_ran;
        Sender m_sender;
    };

    explicit TurnstileTest(const FlowLimits& limits = kLimits) : m_limits(limits) {
        m_turnstile.open();
        m_turnstile.setAvailable(true, &m_worker);
    }

    // Sends a message on a new thread, and returns once that waits or is done.
    std::future<StreamSend> bring(Sender sender) {
        auto result = std::async(std::launch::async, [=, this] {
            Message message(m_ran, sender);
            return m_turnstile.pass(message, sender.lowPriority, m_worker,
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
        m_ran.clear();
        for (std::size_t i = 0; i < count; ++i) {
            m_turnstile.refill(m_worker);
            EXPECT_LE(m_worker.backlog(false), m_limits.alone);
            EXPECT_LE(m_worker.backlog(true), m_limits.alone);
            if (const WorkItem item = m_worker.popWork()) item->DoWork();
        }
        return m_ran;
    }

    void expectOrder(const std::vector<Sender>& senders, const std::string& order) {
        std::vector<std::future<StreamSend>> results;
        for (const auto& sender : senders) results.push_back(bring(sender));
        std::string sent;
        EXPECT_TRUE(eventually([&] { return (sent += run(1)).size() >= order.size(); }));
        EXPECT_EQ(sent, order);
        for (auto& result : results) EXPECT_EQ(result.get(), StreamSend::Sent);
    }

    std::string m_ran;
    std::atomic<bool> m_goesOn{true};
    std::size_t m_waiting = 0;
    const FlowLimits m_limits;
    Turnstile m_turnstile{m_limits};
    WorkerThread m_worker{{}, &m_turnstile};
};

struct DeeperAloneTest : TurnstileTest {
    DeeperAloneTest() : TurnstileTest(kDeeperAlone) {}
};

}  // namespace

TEST_F(TurnstileTest, LongMessagesTakeTurnsOfAQuantum) {
    // The first six of a passed at once.
    expectOrder({{'a', 8}, {'b', 8}, {'c', 8}}, "aaaaaaaabbbbccccbbbbcccc");
}

TEST_F(TurnstileTest, ShortMessagesComeBetweenTheSlicesOfLongOnesThreeForOne) {
    expectOrder({{'a', 8}, {'b', 8}, {'1', 1}, {'2', 1}, {'3', 1}, {'4', 1}, {'5', 1}},
                "aaaaaa123aa45bbbbbbbb");
}

TEST_F(TurnstileTest, LowPriorityIsALaneOfItsOwn) {
    expectOrder({{'l', 8, true}, {'h', 6}}, "hhhlhhhlllllll");
}

TEST_F(DeeperAloneTest, AThreadThatHasAFastLaneToItselfMayQueueMoreOfLongMessages) {
    const auto deepest = [&] {
        std::size_t most = 0;
        for (int i = 0; i < 200; ++i) {
            run(1);
            most = std::max(most, m_worker.backlog(false));
        }
        return most;
    };
    auto first = bring({'a', 1'000'000'000});
    EXPECT_EQ(m_worker.backlog(false), m_limits.backlog);  // its pace is not known yet
    EXPECT_TRUE(eventually([&] { return deepest() > m_limits.backlog; }));

    auto second = bring({'b', 1'000'000'000});
    run(20);
    const auto start = std::chrono::steady_clock::now();
    const std::size_t shared = deepest();
    const bool isLate = std::chrono::steady_clock::now() - start > std::chrono::milliseconds(100);
    EXPECT_TRUE(isLate || shared <= m_limits.backlog) << shared;
    m_turnstile.close();
    EXPECT_EQ(first.get(), StreamSend::Dropped);
    EXPECT_EQ(second.get(), StreamSend::Dropped);
}

TEST_F(TurnstileTest, AMessageOfManyStagesArrivesWhole) {
    expectOrder({{'a', 100}}, std::string(100, 'a'));
}

TEST_F(TurnstileTest, WaitsWhileTheTransportTakesNothing) {
    m_turnstile.setAvailable(false, &m_worker);
    auto a = bring({'a', 2});
    EXPECT_EQ(run(3), "");
    m_turnstile.setAvailable(true, &m_worker);
    EXPECT_EQ(a.get(), StreamSend::Sent);
    EXPECT_EQ(run(3), "aa");
}

TEST_F(TurnstileTest, WhatEndsTheWaitingSaysWhatHasBecomeOfTheMessage) {
    const std::tuple<const char*, std::function<void()>, StreamSend> cases[] = {
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
        auto begun = bring({'a', 100});
        auto notYet = bring({'b', 100});
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
