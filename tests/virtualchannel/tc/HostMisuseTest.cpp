// A host that does what it should not, on each kind of channel. Each case has a process of its own,
// since the channels of a process are made once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <map>
#include <mutex>
#include <thread>

#include "ChannelSupport.h"
#include "ChildProcess.h"
#include "FakeHost.h"
#include "LanguageAbstraction.h"
#include "LogCapture.h"
#include "Rounds.h"
#include "WorkRecord.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;
using namespace std::chrono_literals;

namespace {

TransportChannel& channelOf(std::uint32_t kind) {
    switch (kind) {
        case NORVO_CHANNEL_CITRIX:
            return *CitrixVirtualChannel::GetInstance();
        case NORVO_CHANNEL_VMWARE:
            return *VMWareVirtualChannel::GetInstance();
        case NORVO_CHANNEL_RDP:
            return *RDPVirtualChannel::GetInstance();
        default:
            return *TCPSocketVirtualChannel::GetInstance();
    }
}

void sendFrom(std::uint32_t kind, int messages) {
    for (int i = 0; i < messages; ++i) channelOf(kind).SendData("message", 7, i % 2 == 0);
}

std::uint32_t receive(Bytes packet) {
    return ReceiveData(packet.data(), static_cast<std::uint32_t>(packet.size()));
}

Bytes somePacket() { return packetsOf(patternOf(100), 1000).front(); }

int ignore(const void*, std::uint32_t, std::uintptr_t, void*) { return 0; }

void callEverythingBut(void (*skipped)()) {
    Bytes packet = somePacket();
    MutexHandle mutex = nullptr;
    receive(packet);
    receive({});
    ReceiveData(nullptr, 0);
    ReceiveData(nullptr, 100);
    for (const std::uint32_t state : {0U, 1U, 2U, 0xFFFFFFFFU, 1U}) ChannelActive(state);
    AppendDataToBuffer(packet.data(), 1, 1);
    AppendDataToBuffer(nullptr, 0, 0);
    IsSeamlessMode_();
    GetICAWindowInfo_();
    GetClientWindowHandleFromServerWindowHandle_(nullptr);
    SetIsSeamlessModeFunc(nullptr);
    SetGetWindowInfoFunc(nullptr);
    SetGetClientWindowHandleFromServerWindowHandleFunc(nullptr);
    MutexUnlock(&mutex);
    MutexDestroy(mutex);
    PluginThreadDestroy();
    WatchdogThreadDestroy();
    EXPECT_STREQ(getChannelName(), "NRVOCW");
    LogMessage_VDI(3, nullptr);
    if (skipped != &Shutdown) Shutdown();
}

void beforeInitialisation(std::uint32_t kind) {
    EXPECT_EQ(receive(somePacket()), 0xFFFFFFFF);
    callEverythingBut(nullptr);
    InitialiseChannel(ignore, kind, nullptr);
    EXPECT_EQ(receive(somePacket()), 0U);
    Shutdown();
}

void unknownKinds(std::uint32_t kind) {
    for (const std::uint32_t unknown : {0U, 5U, 7U, 0xFFFFFFFFU}) {
        InitialiseChannel(ignore, unknown, nullptr);
        EXPECT_EQ(receive(somePacket()), unknown - 1);
        callEverythingBut(nullptr);
    }
    InitialiseChannel(ignore, kind, nullptr);
    InitialiseChannel(ignore, 9, nullptr);
    callEverythingBut(nullptr);
}

void nullCallbacks(std::uint32_t kind) {
    InitialiseChannel(nullptr, kind, nullptr);
    ChannelActive(1);
    sendFrom(kind, 100);
    callEverythingBut(nullptr);
}

void shutdownTwice(std::uint32_t kind) {
    InitialiseChannel(ignore, kind, nullptr);
    ChannelActive(1);
    sendFrom(kind, 20);
    Shutdown();
    Shutdown();
    callEverythingBut(nullptr);
    sendFrom(kind, 20);
    EXPECT_EQ(receive(somePacket()), kind == NORVO_CHANNEL_CITRIX ? 0xFFFFFFFF : 0U);
}

void initialiseAgain(std::uint32_t kind) {
    for (int round = 0; round < 3; ++round) {
        for (const std::uint32_t next : {kind, kind, kind % 4 + 1}) {
            InitialiseChannel(ignore, next, nullptr);
            ChannelActive(1);
            sendFrom(next, 20);
            receive(somePacket());
        }
        Shutdown();
        InitialiseChannel(ignore, kind, nullptr);
        callEverythingBut(&Shutdown);
        Shutdown();
    }
}

void getInstanceAtOnce(std::uint32_t kind) {
    constexpr int kThreads = 4;
    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    std::atomic<TransportChannel*> seen{nullptr};
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            InitialiseChannel(ignore, kind, nullptr);
            TransportChannel* expected = nullptr;
            TransportChannel* const mine = &channelOf(kind);
            seen.compare_exchange_strong(expected, mine);
            EXPECT_EQ(seen, mine);
        });
    }
    for (auto& thread : threads) thread.join();
    Shutdown();
}

std::atomic<int> g_calls{0};

void slowCallback(std::uint32_t kind) {
    const auto slow = [](const void*, std::uint32_t, std::uintptr_t, void*) {
        ++g_calls;
        std::this_thread::sleep_for(100ms);
        return 0;
    };
    InitialiseChannel(slow, kind, nullptr);
    ChannelActive(1);
    const auto start = std::chrono::steady_clock::now();
    sendFrom(kind, 1000);
    receive(somePacket());
    ChannelActive(0);
    Shutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
    EXPECT_LT(g_calls, 600);
}

void callbackCallsBack(std::uint32_t kind) {
    const auto backIn = [](const void*, std::uint32_t, std::uintptr_t, void*) {
        ++g_calls;
        receive(somePacket());
        IsSeamlessMode_();
        LogMessage_VDI(1, "inside");
        ChannelActive(1);
        return 0;
    };
    InitialiseChannel(backIn, kind, nullptr);
    ChannelActive(1);
    for (int i = 0; i < 200; ++i) {
        sendFrom(kind, 1);
        receive(somePacket());
    }
    while (g_calls < 20) std::this_thread::yield();
    Shutdown();
}

std::mutex g_hostLock;

// The host holds its lock in every call into the library, and needs it to take a packet.
void callbackTakesTheHostsLock(std::uint32_t kind) {
    const auto locking = [](const void*, std::uint32_t, std::uintptr_t, void*) {
        ++g_calls;
        const std::lock_guard lock(g_hostLock);
        --g_calls;
        return 0;
    };
    const auto locked = [](const auto& call) {
        const std::lock_guard lock(g_hostLock);
        call();
    };
    locked([&] { InitialiseChannel(locking, kind, nullptr); });
    for (int i = 0; i < 20; ++i) {
        locked([] { ChannelActive(1); });
        locked([&] { sendFrom(kind, 10); });
        locked([] { receive(somePacket()); });
        locked([] { ChannelActive(0); });
    }
    locked([] { ChannelActive(1); });
    locked([&] {
        sendFrom(kind, 10);
        while (g_calls == 0) std::this_thread::yield();
        Shutdown();
    });
}

void shutdownInsideTheAppendCallback(std::uint32_t kind) {
    const auto ending = [](const void*, std::uint32_t, std::uintptr_t, void*) {
        Shutdown();
        ++g_calls;
        return 0;
    };
    InitialiseChannel(ending, kind, nullptr);
    ChannelActive(1);
    sendFrom(kind, 3);
    while (g_calls == 0) std::this_thread::yield();
    Shutdown();
}

void shutdownInsideAQuestion(std::uint32_t kind) {
    LogCapture log;
    InitialiseChannel(ignore, kind, nullptr);
    SetIsSeamlessModeFunc([] {
        Shutdown();
        InitialiseChannel(ignore, 3, nullptr);
        return 0;
    });
    EXPECT_TRUE(channelOf(kind).IsSeamlessMode());
    EXPECT_TRUE(log.contains("Shutdown() from inside a callback is ignored."));
    Shutdown();
}

using Case = void (*)(std::uint32_t kind);

const std::map<std::string, Case>& cases() {
    static const std::map<std::string, Case> all{
        {"beforeInitialisation", beforeInitialisation},
        {"unknownKinds", unknownKinds},
        {"nullCallbacks", nullCallbacks},
        {"shutdownTwice", shutdownTwice},
        {"initialiseAgain", initialiseAgain},
        {"getInstanceAtOnce", getInstanceAtOnce},
        {"slowCallback", slowCallback},
        {"callbackCallsBack", callbackCallsBack},
        {"callbackTakesTheHostsLock", callbackTakesTheHostsLock},
        {"shutdownInsideTheAppendCallback", shutdownInsideTheAppendCallback},
        {"shutdownInsideAQuestion", shutdownInsideAQuestion},
    };
    return all;
}

std::vector<std::string> caseNames() {
    std::vector<std::string> names;
    for (const auto& [name, run] : cases()) names.push_back(name);
    return names;
}

}  // namespace

CHILD_ROLE(misbehavingHost) {
    cases().at(args[0])(static_cast<std::uint32_t>(std::stoul(args[1])));
    return testing::Test::HasFailure() ? 1 : 0;
}

class HostMisuseAcrossProcesses
    : public testing::TestWithParam<std::tuple<std::string, const char*>> {};

TEST_P(HostMisuseAcrossProcesses, LeavesTheProcessStanding) {
    const auto& [name, kind] = GetParam();
    EXPECT_EQ(ChildProcess("misbehavingHost", {name, kind}).wait(90s), 0);
}

INSTANTIATE_TEST_SUITE_P(All, HostMisuseAcrossProcesses,
                         testing::Combine(testing::ValuesIn(caseNames()),
                                          testing::Values("1", "2", "3", "4")),
                         [](const auto& parameters) {
                             return std::get<0>(parameters.param) + "OfKind" +
                                    std::get<1>(parameters.param);
                         });

// ---- Everything at once with Shutdown

template <class Channel>
class ShutdownRaceTest : public testing::Test {};
TYPED_TEST_SUITE(ShutdownRaceTest, Kinds);

TYPED_TEST(ShutdownRaceTest, ReceivesSendsAndAvailabilityRaceShutdown) {
    const LogCapture quiet(0);
    FakeHost host;
    const Bytes whole = somePacket();
    const auto cut = packetsOf(patternOf(3000), 1000);
    for (int round = 0; round < (kSanitized ? 20 : 1000); ++round) {
        TypeParam channel;
        channel.OnChannelInitialize();
        std::atomic<bool> over{false};
        std::barrier start(4);
        const auto racing = [&](auto&& act) {
            return std::thread([&, act] {
                start.arrive_and_wait();
                while (!over) {
                    act();
                    std::this_thread::yield();
                }
            });
        };
        std::thread receiver = racing([&] {
            channel.ReceiveData(whole.data(), static_cast<unsigned int>(whole.size()));
            for (const Bytes& packet : cut) {
                channel.ReceiveData(packet.data(), static_cast<unsigned int>(packet.size()));
            }
        });
        std::thread sender = racing([&] { channel.SendData("message", 7, false); });
        std::thread state = racing([&] {
            channel.ChannelActive(1);
            channel.ChannelActive(0);
        });
        start.arrive_and_wait();
        if (round % 2) std::this_thread::yield();
        channel.Shutdown();
        channel.OnChannelInitialize();
        channel.Shutdown();
        over = true;
        receiver.join();
        sender.join();
        state.join();
        channel.ChannelActive(1);
    }
}
