// Two machines and a path between them that loses, repeats, reorders and delays frames.
#include "ConnectionMachine.h"
#include "TestSupport.h"

namespace {

using namespace testsupport;
using NorvoStreamClient::ConnectionFrame;
using NorvoStreamClient::ConnectionMachine;
using NorvoStreamClient::Reason;
using Machine = ConnectionMachine;
using Time = Machine::Time;

constexpr std::size_t kBlock = 16;
constexpr std::size_t kCapacity = 128;
constexpr std::uint32_t kMessages = 6;

struct Trouble {
    int loss = 0, repeat = 0, disorder = 0;  // percent of frames
};

class World {
public:
    // Both ends may call.
    explicit World(std::uint64_t seed, Trouble trouble = {},
                   Machine::Role second = Machine::Role::Accept, std::size_t capacity = kCapacity)
        : m_random(seed), m_trouble(trouble), m_second(second), m_capacity(capacity) {
        restart(0);
        restart(1);
    }

    // Starts a new program at that end; what the old one sent stays in transit.
    void restart(std::size_t index) {
        Machine::Settings settings;
        settings.blockSize = kBlock;
        settings.capacity = m_capacity;
        settings.messages = kMessages;
        End& end = m_ends[index];
        end.onTheWay = std::exchange(end, End()).onTheWay;
        end.epoch = ++m_epoch;
        end.machine = std::make_unique<Machine>(index == 0 ? Machine::Role::Connect : m_second,
                                                m_epoch, settings, now);
        end.machine->setPath(m_up, now);
    }
    Machine& machine(std::size_t index) { return *m_ends[index].machine; }
    bool below(int percent) { return static_cast<int>(m_random() % 100) < percent; }

    // Takes the path down or up; what is in transit is lost.
    void setPath(bool up) {
        m_up = up;
        for (End& end : m_ends) {
            end.onTheWay.clear();
            end.machine->setPath(up, now);
        }
    }
    void write(std::size_t index) {
        End& end = m_ends[index];
        if (end.finished) return;
        std::string text(m_random() % 40, ' ');
        for (std::size_t i = 0; i < text.size(); ++i)
            text[i] = static_cast<char>(index * 91 + m_epoch * 17 + (end.sent.size() + i) * 7);
        end.sent.append(text, 0, end.machine->write(text.data(), text.size()));
    }
    void finish(std::size_t index) {
        m_ends[index].finished = true;
        m_ends[index].machine->finish();
    }
    void read(std::size_t index) {
        char bytes[64];
        End& end = m_ends[index];
        end.got.append(bytes, end.machine->read(bytes, 1 + m_random() % sizeof bytes));
    }
    void pass(std::size_t index) {
        now += std::chrono::microseconds(m_random() % 2000);
        emit(index);
        deliver(1 - index);
        for (const std::size_t each : {0U, 1U})
            EXPECT_LE(machine(each).framesUnderWay(), kMessages + 8u);
    }
    // One random event at one of the ends.
    void step() {
        const std::size_t index = below(50) ? 1 : 0;
        pass(index);
        if (below(40)) write(index);
        if (below(40)) read(1 - index);
    }
    // What has arrived at each end is a prefix of what was written at the other.
    void expectNothingForeign() {
        for (const std::size_t index : {0U, 1U}) {
            const auto& [got, sent] = std::tie(m_ends[index].got, m_ends[1 - index].sent);
            ASSERT_EQ(got, sent.substr(0, got.size()));
        }
    }
    // Finishes both ends and runs until nothing is left to do.
    void expectAllArrives() {
        finish(0);
        finish(1);
        const auto isDone = [](End& end) {
            return end.machine->isOver() && end.machine->isAtEnd();
        };
        for (const Time end = now + 600s; now < end; now += 1ms) {
            for (const std::size_t index : {0U, 1U}) {
                pass(index);
                read(index);
            }
            if (isDone(m_ends[0]) && isDone(m_ends[1])) break;
        }
        ASSERT_EQ(m_ends[0].got, m_ends[1].sent);
        ASSERT_EQ(m_ends[1].got, m_ends[0].sent);
        ASSERT_TRUE(isDone(m_ends[0]) && isDone(m_ends[1]));
    }

    Time now{};

private:
    struct End {
        std::unique_ptr<Machine> machine;
        std::string sent;
        std::string got;
        std::deque<std::string> onTheWay;  // to the other end
        std::uint64_t limitSaid = 0;
        std::uint64_t epoch = 0;
        bool finished = false;
    };

    void emit(std::size_t index) {
        End& end = m_ends[index];
        while (const auto message = end.machine->nextFrame(now)) {
            const auto frame = ConnectionFrame::parse(*message);
            ASSERT_TRUE(frame);
            const std::size_t length = message->size() - ConnectionFrame::kHeaderSize;
            end.limitSaid = std::max(end.limitSaid, frame->limit);
            if (length > 0 && frame->to == m_ends[1 - index].epoch) {
                EXPECT_LE(frame->offset + length, m_ends[1 - index].limitSaid);
            }
            if (m_up && !below(m_trouble.loss)) end.onTheWay.push_back(*message);
        }
    }
    void deliver(std::size_t to) {
        auto& queue = m_ends[1 - to].onTheWay;
        while (!queue.empty() && !below(30)) {
            if (queue.size() > 1 && below(m_trouble.disorder)) std::swap(queue[0], queue[1]);
            const std::string message = queue.front();
            if (!below(m_trouble.repeat)) queue.pop_front();
            m_ends[to].machine->hear(message, now);
        }
    }

    std::mt19937_64 m_random;
    const Trouble m_trouble;
    const Machine::Role m_second;
    const std::size_t m_capacity;
    std::array<End, 2> m_ends;
    std::uint64_t m_epoch = 100;
    bool m_up = true;
};

TEST(ConnectionMachine, WhatIsWrittenArrivesWholeThroughLossRepetitionDisorderAndCuts) {
    const Trouble troubles[] = {{}, {5, 0, 0}, {30, 0, 0}, {0, 30, 0}, {0, 0, 50}, {10, 10, 20}};
    for (std::uint64_t seed = 0; seed < static_cast<std::uint64_t>(rounds(1500)); ++seed) {
        SCOPED_TRACE(seed);
        World world(seed, troubles[seed % std::size(troubles)],
                    seed % 5 == 0 ? Machine::Role::Connect : Machine::Role::Accept);
        for (int step = 0; step < 700; ++step) {
            world.step();
            if (seed % 3 == 0 && world.below(1)) {
                world.setPath(false);
                world.now += 1s;
                world.setPath(true);
            }
            if (step == 350 && seed % 2 == 0) world.finish(0);  // the other direction continues
        }
        ASSERT_NO_FATAL_FAILURE(world.expectAllArrives());
    }
}

TEST(ConnectionMachine, AWindowBelowTwoBlocksDoesNotWaitForPings) {
    World world(1, {}, Machine::Role::Accept, kBlock + kBlock / 4);
    std::size_t got = 0;
    for (char byte = 'x'; got < 20 * kBlock && world.now < Time(60s);) {
        world.machine(0).write(std::string(kBlock, byte).data(), kBlock);
        world.pass(0);
        world.pass(1);
        got += world.machine(1).read(&byte, 1);
    }
    EXPECT_LT(world.now, Time(2s));
}

TEST(ConnectionMachine, NothingOfAFormerConnectionIsTakenForThisOne) {
    for (std::uint64_t seed = 0; seed < static_cast<std::uint64_t>(rounds(1000)); ++seed) {
        SCOPED_TRACE(seed);
        World world(seed, {static_cast<int>(seed % 3) * 5, static_cast<int>(seed % 5) * 5, 0},
                    seed % 4 == 0 ? Machine::Role::Connect : Machine::Role::Accept);
        for (int step = 0; step < 400; ++step) {
            world.step();
            if (!world.below(2)) continue;
            // One end is replaced; the other notices, fails and is replaced too.
            const std::size_t index = world.below(50) ? 1 : 0;
            world.restart(index);
            Machine& other = world.machine(1 - index);
            const bool wasOpen = other.isOpen();
            for (unsigned int i = 0; wasOpen && other.isOpen() && i < 30000; ++i) {
                world.pass(i % 2);
                world.now += 1ms;
            }
            if (wasOpen) {
                ASSERT_EQ(other.failure().reason(), Reason::PeerGone);
            }
            world.restart(1 - index);
            world.restart(index);
        }
        ASSERT_NO_FATAL_FAILURE(world.expectNothingForeign());
        ASSERT_NO_FATAL_FAILURE(world.expectAllArrives());
    }
}

class OpenMachines : public testing::Test {
protected:
    void SetUp() override {
        for (unsigned int i = 0; i < 100 && !world.machine(1).isOpen(); ++i) world.pass(i % 2);
        ASSERT_TRUE(world.machine(0).isOpen() && world.machine(1).isOpen());
    }
    // How many milliseconds from now that end fails.
    double failsAfter(std::size_t index) {
        const Time start = world.now;
        while (world.machine(index).isOpen() && world.now - start < 200s) {
            world.machine(index).nextFrame(world.now);
            world.now += 10ms;
        }
        return std::chrono::duration<double, std::milli>(world.now - start).count();
    }
    // The second end receives a frame of the first one, changed by `lie`.
    void hear(std::size_t length, void (*lie)(ConnectionFrame&)) {
        ConnectionFrame frame;
        frame.from = 101;
        frame.to = 102;
        lie(frame);
        std::string message(ConnectionFrame::kHeaderSize + length, 'x');
        frame.writeHeader(message.data(), length);
        world.machine(1).hear(message, world.now);
    }
    World world{1};
};

TEST_F(OpenMachines, APartnerMayIdleForLongAndIsGoneWhenItIsSilentForTheStatedTime) {
    for (unsigned int i = 0; i < 100'000; ++i) {
        world.pass(i % 2);
        world.now += 1ms;
    }
    EXPECT_TRUE(world.machine(0).isOpen() && world.machine(1).isOpen());
    EXPECT_NEAR(failsAfter(0), 20000, 2000);
    EXPECT_EQ(world.machine(0).failure().reason(), Reason::PeerGone);
}

TEST_F(OpenMachines, APartnerHasTheStatedTimeToAnswerOnceAnotherProgramCalls) {
    for (const Time quiet = world.now + 8s; world.now < quiet; world.now += 10ms)
        world.machine(1).nextFrame(world.now);
    hear(0, [](auto& frame) {
        frame.kind = ConnectionFrame::Kind::Hello;
        frame.from = 1000;
        frame.to = 0;
    });
    EXPECT_NEAR(failsAfter(1), 5000, 100);
}

TEST_F(OpenMachines, ABrokenPathIsEnduredForTheStatedTime) {
    world.setPath(false);
    EXPECT_NEAR(failsAfter(1), 60000, 1000);
    EXPECT_EQ(world.machine(1).failure().reason(), Reason::NotConnected);
}

TEST_F(OpenMachines, AnAbortIsToldToThePartnerWhichKeepsWhatHasCome) {
    EXPECT_EQ(world.machine(0).write("came", 4), 4U);
    for (unsigned int i = 0; i < 20; ++i) world.pass(i % 2);
    world.machine(0).abort(world.now);
    for (unsigned int i = 0; i < 20; ++i) world.pass(i % 2);
    EXPECT_EQ(world.machine(1).failure().reason(), Reason::PeerGone);
    char bytes[10] = {};
    EXPECT_EQ(world.machine(1).read(bytes, sizeof bytes), 4U);
    EXPECT_STREQ(bytes, "came");
}

TEST_F(OpenMachines, AnAbortAcknowledgesWhatTheProgramHasTaken) {
    char bytes[10] = {};
    EXPECT_EQ(world.machine(0).write("taken", 5), 5U);
    for (int i = 0; i < 20; ++i) {
        const auto frame = world.machine(0).nextFrame(world.now);
        if (frame) world.machine(1).hear(*frame, world.now);
    }
    EXPECT_EQ(world.machine(1).read(bytes, sizeof bytes), 5U);
    world.machine(1).abort(world.now);
    world.machine(0).hear(*world.machine(1).nextFrame(world.now), world.now);
    EXPECT_EQ(world.machine(0).failure().reason(), Reason::PeerGone);
    EXPECT_TRUE(world.machine(0).isDrained());
}

TEST_F(OpenMachines, FramesThatCannotBeTrueChangeNothing) {
    hear(0, [](auto& frame) { frame.acked = 1; });  // acknowledges what was never sent
    hear(0, [](auto& frame) { frame.seen = 1000; });
    hear(kCapacity + 1, [](auto& frame) { frame.number = 1; });  // exceeds the capacity
    world.machine(1).hear("too short", world.now);
    EXPECT_FALSE(world.machine(1).hasData());
    world.write(0);
    ASSERT_NO_FATAL_FAILURE(world.expectAllArrives());
}

}  // namespace
