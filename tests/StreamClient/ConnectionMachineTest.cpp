// Two machines and a path between them that loses, repeats, disorders and keeps frames.
#include "ConnectionMachine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <optional>
#include <random>

#include "Rounds.h"

namespace {

using namespace std::chrono_literals;
using NorvoStreamClient::ConnectionFrame;
using NorvoStreamClient::ConnectionMachine;
using NorvoStreamClient::Reason;
using Machine = ConnectionMachine;
using Time = Machine::Time;

constexpr std::size_t kBlock = 16;
constexpr std::size_t kCapacity = 128;
constexpr std::uint32_t kMessages = 6;

struct Trouble {
    int loss = 0, repeat = 0, disorder = 0;  // of 100 frames
};

class World {
public:
    explicit World(std::uint64_t seed, Trouble trouble = {}) : m_random(seed), m_trouble(trouble) {
        restart(0);
        restart(1);
    }

    // A new program at that end; what the old one had sent stays on its way.
    void restart(std::size_t index) {
        Machine::Settings settings;
        settings.blockSize = kBlock;
        settings.capacity = kCapacity;
        settings.messages = kMessages;
        End& end = m_ends[index];
        end.machine.emplace(index == 0 ? Machine::Role::Connect : Machine::Role::Accept, ++m_epoch,
                            settings, now);
        end.machine->setPath(m_up, now);
        end.sent.clear();
        end.got.clear();
        end.limitSaid = 0;
        end.epoch = m_epoch;
        end.finished = false;
    }
    Machine& machine(std::size_t index) { return *m_ends[index].machine; }
    const std::string& sent(std::size_t index) const { return m_ends[index].sent; }
    const std::string& got(std::size_t index) const { return m_ends[index].got; }
    bool below(int percent) { return static_cast<int>(m_random() % 100) < percent; }

    // Nothing passes from here on, or again; what is on its way is lost.
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
    // Both go on until nothing is left to do, or `limit` is over.
    bool settle(std::chrono::seconds limit = 60s) {
        for (const Time end = now + limit; now < end; now += 1ms) {
            for (const std::size_t index : {0U, 1U}) {
                pass(index);
                read(index);
            }
            if (isDone(0) && isDone(1)) return true;
        }
        return false;
    }
    bool isDone(std::size_t index) { return machine(index).isOver() && machine(index).isAtEnd(); }
    void expectPrefixes() {
        for (const std::size_t index : {0U, 1U}) {
            const std::string& whole = sent(1 - index);
            ASSERT_LE(got(index).size(), whole.size());
            ASSERT_EQ(whole.compare(0, got(index).size(), got(index)), 0);
        }
    }

    Time now{};

private:
    struct End {
        std::optional<Machine> machine;
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
    std::array<End, 2> m_ends;
    std::uint64_t m_epoch = 100;
    bool m_up = true;
};

TEST(ConnectionMachine, WhatIsWrittenArrivesWholeThroughLossRepetitionDisorderAndCuts) {
    const Trouble troubles[] = {{}, {5, 0, 0}, {30, 0, 0}, {0, 30, 0}, {0, 0, 50}, {10, 10, 20}};
    for (std::uint64_t seed = 0; seed < static_cast<std::uint64_t>(testsupport::rounds(1500));
         ++seed) {
        World world(seed, troubles[seed % std::size(troubles)]);
        for (int step = 0; step < 700; ++step) {
            const std::size_t index = world.below(50) ? 1 : 0;
            world.pass(index);
            if (world.below(40)) world.write(index);
            if (world.below(40)) world.read(1 - index);
            if (seed % 3 == 0 && world.below(1)) {
                world.setPath(false);
                world.now += 1s;
                world.setPath(true);
            }
        }
        world.finish(0);
        world.finish(1);
        ASSERT_TRUE(world.settle(600s)) << seed;
        ASSERT_EQ(world.got(0), world.sent(1)) << seed;
        ASSERT_EQ(world.got(1), world.sent(0)) << seed;
    }
}

TEST(ConnectionMachine, NothingOfAFormerConnectionIsTakenForThisOne) {
    for (std::uint64_t seed = 0; seed < static_cast<std::uint64_t>(testsupport::rounds(1000));
         ++seed) {
        World world(seed, {static_cast<int>(seed % 3) * 5, static_cast<int>(seed % 5) * 5, 0});
        for (int step = 0; step < 400; ++step) {
            const std::size_t index = world.below(50) ? 1 : 0;
            world.pass(index);
            world.write(index);
            world.read(1 - index);
            if (!world.below(2)) continue;
            // One ends; its partner hears of that, gives up, and a new one comes in its place.
            world.restart(index);
            Machine& other = world.machine(1 - index);
            const bool wasOpen = other.isOpen();
            for (unsigned int i = 0; wasOpen && other.isOpen() && i < 30000; ++i) {
                world.pass(i % 2);
                world.now += 1ms;
            }
            if (wasOpen) {
                ASSERT_EQ(other.failure().reason(), Reason::PeerGone) << seed;
            }
            world.restart(1 - index);
            world.restart(index);
        }
        world.expectPrefixes();
        world.finish(0);
        world.finish(1);
        ASSERT_TRUE(world.settle()) << seed;
        ASSERT_EQ(world.got(0), world.sent(1)) << seed;
        ASSERT_EQ(world.got(1), world.sent(0)) << seed;
    }
}

class OpenMachines : public testing::Test {
protected:
    void SetUp() override {
        for (unsigned int i = 0; i < 100 && !world.machine(1).isOpen(); ++i) world.pass(i % 2);
        ASSERT_TRUE(world.machine(0).isOpen());
        ASSERT_TRUE(world.machine(1).isOpen());
    }
    // How long, from now, until that end fails.
    std::chrono::milliseconds failsAfter(std::size_t index) {
        const Time start = world.now;
        while (world.machine(index).isOpen() && world.now - start < 200s) {
            world.machine(index).nextFrame(world.now);
            world.now += 10ms;
        }
        return std::chrono::duration_cast<std::chrono::milliseconds>(world.now - start);
    }
    World world{1};
};

TEST_F(OpenMachines, ASilentPartnerIsGoneAfterTheStatedTime) {
    EXPECT_NEAR(static_cast<double>(failsAfter(0).count()), 20000, 2000);
    EXPECT_EQ(world.machine(0).failure().reason(), Reason::PeerGone);
}

TEST_F(OpenMachines, ABrokenPathIsEnduredForTheStatedTime) {
    world.setPath(false);
    EXPECT_NEAR(static_cast<double>(failsAfter(1).count()), 60000, 1000);
    EXPECT_EQ(world.machine(1).failure().reason(), Reason::NotConnected);
}

TEST_F(OpenMachines, APartnerThatIdlesForLongIsStillThere) {
    for (unsigned int i = 0; i < 100'000; ++i) {
        world.pass(i % 2);
        world.now += 1ms;
    }
    EXPECT_TRUE(world.machine(0).isOpen());
    EXPECT_TRUE(world.machine(1).isOpen());
}

TEST_F(OpenMachines, OneDirectionGoesOnAfterTheOtherHasEnded) {
    world.finish(0);
    for (unsigned int i = 0; i < 100; ++i) world.pass(i % 2);
    EXPECT_TRUE(world.machine(1).isAtEnd());
    EXPECT_FALSE(world.machine(0).isOver());
    for (unsigned int i = 0; i < 20; ++i) world.write(1);
    world.finish(1);
    ASSERT_TRUE(world.settle());
    EXPECT_EQ(world.got(0), world.sent(1));
    EXPECT_FALSE(world.sent(1).empty());
}

TEST_F(OpenMachines, AnAbortIsToldToThePartnerWhichKeepsWhatHasCome) {
    world.write(0);
    for (unsigned int i = 0; i < 20; ++i) world.pass(i % 2);
    world.machine(0).abort(world.now);
    for (unsigned int i = 0; i < 20; ++i) world.pass(i % 2);
    EXPECT_EQ(world.machine(1).failure().reason(), Reason::PeerGone);
    for (unsigned int i = 0; i < 20; ++i) world.read(1);
    EXPECT_EQ(world.got(1), world.sent(0));
}

TEST_F(OpenMachines, FramesThatCannotBeTrueChangeNothing) {
    Machine& machine = world.machine(1);
    ConnectionFrame frame;
    frame.from = 101;
    frame.to = 102;
    const auto hear = [&](const ConnectionFrame& lie, std::size_t length) {
        std::string message(ConnectionFrame::kHeaderSize + length, 'x');
        lie.writeHeader(message.data(), length);
        machine.hear(message, world.now);
    };
    auto lie = frame;
    lie.acked = 1;  // of nothing that was sent
    hear(lie, 0);
    lie = frame;
    lie.seen = 1000;
    hear(lie, 0);
    lie = frame;
    lie.number = 1;
    hear(lie, kCapacity + 1);  // more than it was told there is room for
    machine.hear("too short", world.now);
    EXPECT_FALSE(machine.hasData());
    world.write(0);
    world.finish(0);
    world.finish(1);
    ASSERT_TRUE(world.settle());
    EXPECT_EQ(world.got(1), world.sent(0));
}

}  // namespace
