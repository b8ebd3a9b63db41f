// Misuse by the host, on each kind of channel. Each case runs in its own process, since a process
// makes its channels only once.

#include <sys/resource.h>

#include <barrier>
#include <system_error>

#include "AllocationFailure.h"
#include "ChannelSupport.h"
#include "LanguageAbstraction.h"
#include "TestSupport.h"

using namespace NorvoVirtualChannel::tc;
using namespace testsupport;
using namespace std::chrono_literals;

namespace {

TransportChannel& channelOf(std::uint32_t kind) { return kinds::all[kind - 1].instance(); }

void sendFrom(std::uint32_t kind, int messages) {
    for (int i = 0; i < messages; ++i) channelOf(kind).SendData("message", 7, i % 2 == 0);
}

std::string somePacket() { return packetsOf(packettest::pattern(100), 1000).front(); }

std::uint32_t receiveThis(std::string& packet) {
    return ReceiveData(reinterpret_cast<unsigned char*>(packet.data()),
                       static_cast<std::uint32_t>(packet.size()));
}

std::uint32_t receiveOne() {
    std::string packet = somePacket();
    return receiveThis(packet);
}

using OnPacket = void (*)();

int append(const void*, std::uint32_t, std::uintptr_t, void* onPacket) {
    reinterpret_cast<OnPacket>(onPacket)();
    return 0;
}

void doNothing() {}

void initialise(std::uint32_t kind, OnPacket onPacket = doNothing) {
    InitialiseChannel(onPacket ? append : nullptr, kind, reinterpret_cast<void*>(onPacket));
}

void begin(std::uint32_t kind, OnPacket onPacket = doNothing) {
    initialise(kind, onPacket);
    ChannelActive(1);
}

void callEverything() {
    const std::string packet = somePacket();
    MutexHandle mutex = nullptr;
    receiveOne();
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
    Shutdown();
}

void beforeInitialisationAndWithUnknownKinds(std::uint32_t kind) {
    EXPECT_EQ(receiveOne(), 0xFFFFFFFF);
    callEverything();
    for (const std::uint32_t unknown : {0U, 5U, 7U, 0xFFFFFFFFU}) {
        initialise(unknown);
        EXPECT_EQ(receiveOne(), unknown - 1);
        callEverything();
    }
    initialise(kind);
    EXPECT_EQ(receiveOne(), 0U);
    initialise(9);
    callEverything();
}

void nullCallbacksAndInitialisationAgain(std::uint32_t kind) {
    begin(kind, nullptr);
    sendFrom(kind, 100);
    for (int round = 0; round < 3; ++round) {
        for (const std::uint32_t next : {kind, kind, kind % 4 + 1}) {
            begin(next);
            sendFrom(next, 20);
            receiveOne();
        }
        Shutdown();
        Shutdown();
        initialise(kind);
        callEverything();
        sendFrom(kind, 20);
        EXPECT_EQ(receiveOne(), kind == NORVO_CHANNEL_CITRIX ? 0xFFFFFFFF : 0U);
    }
}

void manyThreadsInitialiseAtOnce(std::uint32_t kind) {
    std::barrier start(4);
    onThreads(4, [&](int) {
        start.arrive_and_wait();
        initialise(kind);
    });
    EXPECT_EQ(receiveOne(), 0U);
    Shutdown();
}

std::atomic<int> g_calls{0};

std::uint32_t g_kind = 0;

// No lock that these calls need is held while the callback runs.
void callBack() {
    receiveOne();
    IsSeamlessMode_();
    LogMessage_VDI(1, "inside");
    ChannelActive(1);
    if (g_calls++ != 0) return;
    std::thread([] {
        AppendDataToBuffer("", 0, 0);
        initialise(g_kind, callBack);
    }).join();
}

void callbackCallsBack(std::uint32_t kind) {
    g_kind = kind;
    begin(kind, callBack);
    for (int i = 0; i < 200; ++i) {
        sendFrom(kind, 1);
        receiveOne();
    }
    EXPECT_TRUE(eventually([] { return g_calls >= 20; }));
    Shutdown();
}

std::mutex g_hostLock;

// The host holds its lock during every call into the library, and needs it to take a packet.
void callbackTakesTheHostsLock(std::uint32_t kind) {
    begin(kind, [] {
        ++g_calls;
        const std::lock_guard lock(g_hostLock);
        --g_calls;
    });
    for (int i = 0; i < 20; ++i) {
        const std::lock_guard lock(g_hostLock);
        ChannelActive(1);
        sendFrom(kind, 10);
        receiveOne();
        ChannelActive(0);
    }
    const std::lock_guard lock(g_hostLock);
    ChannelActive(1);
    sendFrom(kind, 10);
    while (g_calls == 0) std::this_thread::yield();
    Shutdown();
}

void shutdownInsideTheAppendCallback(std::uint32_t kind) {
    begin(kind, [] {
        Shutdown();
        ++g_calls;
    });
    sendFrom(kind, 3);
    while (g_calls == 0) std::this_thread::yield();
    Shutdown();
}

void shutdownInsideAQuestion(std::uint32_t kind) {
    LogCapture log;
    initialise(kind);
    SetIsSeamlessModeFunc([] {
        Shutdown();
        initialise(3);
        return 0;
    });
    EXPECT_TRUE(channelOf(kind).IsSeamlessMode());
    EXPECT_TRUE(log.contains("Shutdown() from inside a callback is ignored."));
    EXPECT_TRUE(log.contains("InitialiseChannel() inside a callback is ignored."));
    Shutdown();
}

// Each step with each of its allocations failing in turn: only a message or packet may be lost.
void noMemory(std::uint32_t kind) {
    const std::string message = packettest::pattern(20000);
    auto packets = packetsOf(message, 1000);
    EXPECT_GT(failEachAllocation([&] { initialise(kind, [] { ++g_calls; }); }), 10);
    ChannelActive(1);
    EXPECT_GT(failEachAllocation([&] { send(channelOf(kind), message); }), 1);
    const auto receivesAll = [&] {
        for (auto& packet : packets) receiveThis(packet);
    };
    EXPECT_GT(failEachAllocation(receivesAll), 1);
    channelOf(kind).ResetChannel();
    const int before = g_calls;
    sendFrom(kind, 2);
    EXPECT_TRUE(eventually([&] { return g_calls >= before + 2; }));
    EXPECT_EQ(receiveOne(), 0U);
    const LogCapture log;
    const int ends = failEachAllocation([] { Shutdown(); }, [&] { initialise(kind); });
    EXPECT_EQ(log.count("Virtual Channel Agent created"), ends - 1);  // each after the first
}

// No thread can be created; the running channel is unaffected.
void noThread(std::uint32_t kind) {
    const auto failsToInitialise = [](std::uint32_t which) {
        withoutNewThreads([&] { EXPECT_THROW(initialise(which), std::system_error); });
    };
    if (!testsupport::canRefuseThreads()) return;
    failsToInitialise(kind);
    EXPECT_EQ(receiveOne(), 0xFFFFFFFF);
    initialise(kind);
    EXPECT_EQ(receiveOne(), 0U);
    failsToInitialise(kind % 4 + 1);
    EXPECT_EQ(receiveOne(), 0U);
    Shutdown();
}

// By then the library's objects have been destroyed, or must still work.
void callsWhileTheProcessEnds(std::uint32_t kind) {
    g_kind = kind;
    begin(kind);
    sendFrom(kind, 2);
    receiveOne();
    std::atexit([] {
        sendFrom(g_kind, 2);
        receiveOne();
        ChannelActive(0);
    });
}

const std::map<std::string, std::function<void(std::uint32_t kind)>> kCases{
    {"beforeInitialisationAndWithUnknownKinds", beforeInitialisationAndWithUnknownKinds},
    {"nullCallbacksAndInitialisationAgain", nullCallbacksAndInitialisationAgain},
    {"manyThreadsInitialiseAtOnce", manyThreadsInitialiseAtOnce},
    {"callbackCallsBack", callbackCallsBack},
    {"callsWhileTheProcessEnds", callsWhileTheProcessEnds},
    {"noMemory", noMemory},
    {"noThread", noThread},
    {"callbackTakesTheHostsLock", callbackTakesTheHostsLock},
    {"shutdownInsideTheAppendCallback", shutdownInsideTheAppendCallback},
    {"shutdownInsideAQuestion", shutdownInsideAQuestion},
};

}  // namespace

CHILD_ROLE(misbehavingHost) {
    kCases.at(args[0])(static_cast<std::uint32_t>(std::stoul(args[1])));
    return testing::Test::HasFailure() ? 1 : 0;
}

class HostMisuseAcrossProcesses : public testing::TestWithParam<Kind> {};
class ShutdownRaceTest : public testing::TestWithParam<Kind> {};
INSTANTIATE_TEST_SUITE_P(Kinds, HostMisuseAcrossProcesses, testing::ValuesIn(kinds::all),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kinds, ShutdownRaceTest, testing::ValuesIn(kinds::all),
                         testing::PrintToStringParamName());

TEST_P(HostMisuseAcrossProcesses, DoesNotEndTheProcess) {
    for (const auto& [name, run] : kCases) {
        ChildProcess host("misbehavingHost", {name, std::to_string(GetParam().type)});
        EXPECT_EQ(host.wait(90s), 0) << name;
    }
}

TEST_P(ShutdownRaceTest, ReceivesSendsAndAvailabilityRaceShutdown) {
    const LogCapture quiet(0);
    auto packets = packetsOf(packettest::pattern(3000), 1000);
    packets.push_back(somePacket());
    for (int round = 0; round < (kSanitized ? 20 : 1000); ++round) {
        FakeHost host;
        const auto channel = GetParam().make({});
        channel->OnChannelInitialize();
        std::atomic<bool> over{false};
        const std::function<void()> acts[] = {[&] {
                                                  for (const auto& packet : packets)
                                                      receive(*channel, packet);
                                              },
                                              [&] { send(*channel, "message"); },
                                              [&] {
                                                  for (const int state : {1, 0})
                                                      channel->ChannelActive(state);
                                              },
                                              [&] {
                                                  if (round % 2) std::this_thread::yield();
                                                  channel->Shutdown();
                                                  channel->OnChannelInitialize();
                                                  channel->Shutdown();
                                                  over = true;
                                              }};
        std::barrier start(4);
        onThreads(4, [&](int number) {
            start.arrive_and_wait();
            do {
                acts[number]();
                std::this_thread::yield();
            } while (!over);
        });
        channel->ResetChannel();
        channel->OnChannelInitialize();
        channel->ChannelActive(1);
        if (send(*channel, "last") != 0) continue;  // Citrix refuses
        const auto isSent = [&] { return host.messages().back() == "last"; };
        ASSERT_TRUE(eventually([&] { return !host.packets().empty() && isSent(); })) << round;
    }
}
