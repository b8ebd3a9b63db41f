// The path of a message through a channel: out to the host's callback, and in to the observer.
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AllocationCounter.h"
#include "Arrivals.h"
#include "CitrixVirtualChannel.h"
#include "CopyCounter.h"
#include "Harness.h"
#include "HostCallbacks.h"
#include "LatencyRecorder.h"
#include "RDPVirtualChannel.h"
#include "TCPSocketVirtualChannel.h"
#include "VMWareVirtualChannel.h"

namespace {

using namespace NorvoVirtualChannel::tc;
using bench::Arrivals;
using bench::atLeast;
using bench::atMost;
using bench::Measurement;
using bench::Sample;
using bench::secondsSince;
using bench::Suite;
using Clock = std::chrono::steady_clock;

// Most packets in flight, so that no queue grows without limit.
constexpr std::uint64_t kUnderWay = 1000;

// ---- The floor: a queue handed over under one mutex and one condition

class PlainQueue {
public:
    PlainQueue() : m_thread([this] { run(); }) {}
    ~PlainQueue() {
        push(nullptr);
        m_thread.join();
    }
    void push(Arrivals* item) {
        {
            const std::lock_guard lock(m_mutex);
            m_items.push_back(item);
        }
        m_condition.notify_one();
    }

private:
    void run() {
        for (;;) {
            std::unique_lock lock(m_mutex);
            m_condition.wait(lock, [this] { return !m_items.empty(); });
            Arrivals* const item = m_items.front();
            m_items.pop_front();
            lock.unlock();
            if (!item) return;
            item->add();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_condition;
    std::deque<Arrivals*> m_items;
    std::thread m_thread;
};

void handOver(std::uint64_t items, Sample& sample) {
    Arrivals arrivals;
    PlainQueue queue;
    const auto start = Clock::now();
    for (std::uint64_t i = 1; i <= items; ++i) {
        queue.push(&arrivals);
        if (i % kUnderWay == 0) arrivals.waitFor(i);
    }
    arrivals.waitFor(items);
    sample.set("per packet", secondsSince(start) * 1e9 / static_cast<double>(items), "ns");
}

// ---- The worker alone

class Tick : public WorkObject {
public:
    explicit Tick(Arrivals& arrivals) : m_arrivals(arrivals) {}
    int DoWork() override {
        m_arrivals.add();
        return 0;
    }

private:
    Arrivals& m_arrivals;
};

void workerThroughput(std::uint64_t items, std::size_t batch, Sample& sample) {
    Arrivals arrivals;
    WorkerThread worker;
    worker.Start();
    const auto start = Clock::now();
    for (std::uint64_t done = 0; done < items; done += batch) {
        std::vector<WorkItem> work;
        for (std::size_t i = 0; i < batch; ++i) work.push_back(std::make_unique<Tick>(arrivals));
        worker.AddWork(work, false);
    }
    arrivals.waitFor(items);
    const double seconds = secondsSince(start);
    sample.set("per packet", seconds * 1e9 / static_cast<double>(items), "ns");
    sample.set("rate", static_cast<double>(items) / seconds, "packets/s");
}

// ---- A channel between a host that only counts and an observer that only counts

class CountingObserver : public NorvoVirtualChannel::Observer {
public:
    void OnVirtualChannelReceiveData(const void* data, unsigned int) override {
        bench::doNotOptimize(data);
    }
    void OnVirtualChannelAvailabilityChange(bool) override {}
    void OnVirtualChannelShutdown() override {}
    void OnSessionAvailabilityChange(bool) override {}
    void OnThinClientPlatformChange(unsigned int) override {}
    void OnChannelBlockedByPolicySetting(bool) override {}
};

template <class Channel>
class OpenChannel {
public:
    explicit OpenChannel(WorkerThread::Pause pause = {}) : m_channel(std::move(pause)) {
        auto& host = HostCallbacks::GetInstance();
        host.setAppendBuffer(
            [](const void*, std::uint32_t, std::uintptr_t, void* context) {
                static_cast<Arrivals*>(context)->add();
                return 0;
            },
            &m_arrivals);
        host.setActive(true);
        m_channel.AddObserver(&m_observer);
        m_channel.ChannelActive(1);
    }
    ~OpenChannel() { HostCallbacks::GetInstance().setActive(false); }

    TransportChannel& channel() { return m_channel; }
    const Arrivals& arrivals() const { return m_arrivals; }
    std::uint64_t packetsOf(std::size_t messageSize) {
        const auto payload = static_cast<std::size_t>(m_channel.GetMaxMsgSize()) - 24;
        return messageSize == 0 ? 1 : (messageSize + payload - 1) / payload;
    }
    // Sends `count` messages, and returns when the host has all of their packets.
    void send(const std::string& message, std::uint64_t count) {
        for (std::uint64_t i = 0; i < count; ++i) {
            m_channel.SendData(message.data(), static_cast<unsigned int>(message.size()), false);
        }
        m_expected += count * packetsOf(message.size());
        m_arrivals.waitFor(m_expected);
    }

private:
    Arrivals m_arrivals;
    std::uint64_t m_expected = 0;
    CountingObserver m_observer;
    Channel m_channel;
};

void noPause(std::chrono::milliseconds) {}

// Allocations per message, and how often each byte is copied (including its packets' headers).
void countMemory(Sample& sample, std::size_t size, const std::function<void()>& sendOne) {
    constexpr int kMessages = 200;
    for (int i = 0; i < kMessages; ++i) sendOne();
    const bench::AllocationCounter allocations;
    const bench::CopyCounter copies;
    for (int i = 0; i < kMessages; ++i) sendOne();
    const auto copied = static_cast<double>(copies.read());
    const auto allocated = allocations.read();
    sample.set("allocations", static_cast<double>(allocated.count) / kMessages, "");
    sample.set("allocated bytes", static_cast<double>(allocated.bytes) / kMessages, "B");
    sample.set("copies", copied / kMessages / static_cast<double>(size), "x");
}

template <class Channel>
void sendUnpaced(std::size_t size, std::uint64_t packets, Sample& sample) {
    OpenChannel<Channel> open(noPause);
    const std::string message(size, 'x');
    const std::uint64_t perMessage = open.packetsOf(size);
    const std::uint64_t burst = std::max<std::uint64_t>(1, kUnderWay / perMessage);
    const std::uint64_t bursts = std::max<std::uint64_t>(1, packets / perMessage / burst);
    open.send(message, burst);
    const auto start = Clock::now();
    for (std::uint64_t i = 0; i < bursts; ++i) open.send(message, burst);
    const double seconds = secondsSince(start);
    const auto messages = static_cast<double>(bursts * burst);
    sample.set("per packet", seconds * 1e9 / (messages * static_cast<double>(perMessage)), "ns");
    sample.set("per message", seconds * 1e9 / messages, "ns");
    sample.set("rate", messages * static_cast<double>(perMessage) / seconds, "packets/s");
    countMemory(sample, size, [&] { open.send(message, 1); });
}

template <class Channel>
void receiveUnsplit(std::size_t size, std::uint64_t messages, Sample& sample) {
    OpenChannel<Channel> open;
    std::string packet(24 + size, 'x');
    const auto length = static_cast<std::uint32_t>(size);
    const std::uint32_t header[] = {0x005B005B, 1, 1, 1, length, length + 24};
    std::memcpy(packet.data(), header, sizeof header);
    const auto receive = [&] {
        open.channel().ReceiveData(packet.data(), static_cast<unsigned int>(packet.size()));
    };
    const auto start = Clock::now();
    for (std::uint64_t i = 0; i < messages; ++i) receive();
    sample.set("per message", secondsSince(start) * 1e9 / static_cast<double>(messages), "ns");
    countMemory(sample, size, receive);
}

void copyBytes(std::size_t size, std::uint64_t times, Sample& sample) {
    const std::string from(size, 'x');
    std::string to(size, 'y');
    const auto start = Clock::now();
    for (std::uint64_t i = 0; i < times; ++i) {
        std::memcpy(to.data(), from.data(), size);
        bench::doNotOptimize(to.data());
    }
    sample.set("per message", secondsSince(start) * 1e9 / static_cast<double>(times), "ns");
}

// A paced channel's throughput, as a fraction of what its pauses allow. The first pause comes after
// the eleventh packet, so the measurement starts with the eleventh.
template <class Channel>
void sendPaced(double seconds, int pauseMs, Sample& sample) {
    constexpr std::uint64_t kPacketsPerPause = 10;
    OpenChannel<Channel> open;
    const auto payload = static_cast<std::size_t>(open.channel().GetMaxMsgSize()) - 24;
    const auto pauses = static_cast<std::uint64_t>(seconds * 1000 / pauseMs);
    const std::string message(payload, 'x');
    for (std::uint64_t i = 0; i < kPacketsPerPause * (pauses + 1) + 1; ++i) {
        open.channel().SendData(message.data(), static_cast<unsigned int>(payload), false);
    }
    open.arrivals().waitFor(kPacketsPerPause + 1);
    const auto start = Clock::now();
    open.arrivals().waitFor(kPacketsPerPause * (pauses + 1) + 1);
    const auto bytes = static_cast<double>(kPacketsPerPause * pauses * payload);
    const double ceiling = bytes / (static_cast<double>(pauses) * pauseMs / 1000);
    const double rate = bytes / secondsSince(start);
    sample.set("bandwidth", rate / 1e6, "MB/s");
    sample.set("of the ceiling", rate / ceiling, "");
}

template <class Channel>
void declareSending(Suite& suite, const char* name, std::size_t size, const Measurement& floor) {
    const auto ours = suite.measure(name, [size, packets = suite.scaled(200000)](Sample& sample) {
        sendUnpaced<Channel>(size, packets, sample);
    });
    suite.goal(std::string(name) + " per packet", ours["per packet"], floor["per packet"],
               atMost(3.0, 1.5));
    suite.goal(std::string(name) + " packets/s", ours["rate"], atLeast(1e6, 2e6));
    suite.goal(std::string(name) + " copies of a byte", ours["copies"],
               size < 1000 ? bench::reported() : atMost(2.0, 1.1));
}

void declareSendingAll(Suite& suite, const char* group, std::size_t size) {
    suite.group(group);
    const auto floor =
        suite.measure("mutex + condition queue",
                      [items = suite.scaled(200000)](Sample& sample) { handOver(items, sample); });
    suite.measure("memcpy of the bytes", [size, times = suite.scaled(20000)](Sample& sample) {
        copyBytes(size, times, sample);
    });
    declareSending<CitrixVirtualChannel>(suite, "Citrix", size, floor);
    declareSending<VMWareVirtualChannel>(suite, "VMware", size, floor);
    declareSending<RDPVirtualChannel>(suite, "RDP", size, floor);
    declareSending<TCPSocketVirtualChannel>(suite, "TCP", size, floor);
}

template <class Channel>
void declareReceiving(Suite& suite, const char* name, std::size_t size) {
    const auto ours = suite.measure(name, [size, messages = suite.scaled(200000)](Sample& sample) {
        receiveUnsplit<Channel>(size, messages, sample);
    });
    suite.goal(std::string(name) + " copies of a byte", ours["copies"], atMost(1.0, 0.1));
}

template <class Channel>
void declarePaced(Suite& suite, const char* name, int pauseMs) {
    const auto ours =
        suite.measure(name, [pauseMs, seconds = suite.quick() ? 0.3 : 1.0](Sample& sample) {
            sendPaced<Channel>(seconds, pauseMs, sample);
        });
    suite.goal(std::string(name) + " bandwidth of the ceiling", ours["of the ceiling"],
               atLeast(0.95, 0.98));
}

}  // namespace

BENCH_SUITE(channels, "a channel: the worker, sending and receiving, with pauses and without") {
    suite.group("worker");
    const auto floor =
        suite.measure("mutex + condition queue",
                      [items = suite.scaled(200000)](Sample& sample) { handOver(items, sample); });
    for (const std::size_t batch : {std::size_t{1}, std::size_t{14}, std::size_t{45}}) {
        const std::string name = "worker, " + std::to_string(batch) + " items at a time";
        const auto ours =
            suite.measure(name, [batch, items = suite.scaled(200000)](Sample& sample) {
                workerThroughput(items / batch * batch, batch, sample);
            });
        suite.goal(name, ours["per packet"], floor["per packet"], atMost(3.0, 1.0));
    }
    declareSendingAll(suite, "sending 64 B, no pauses", 64);
    declareSendingAll(suite, "sending 64 KiB, no pauses", 64 * 1024);

    suite.group("receiving 900 B");
    suite.measure("memcpy of the bytes", [times = suite.scaled(200000)](Sample& sample) {
        copyBytes(900, times, sample);
    });
    declareReceiving<CitrixVirtualChannel>(suite, "Citrix", 900);
    declareReceiving<VMWareVirtualChannel>(suite, "VMware", 900);
    declareReceiving<RDPVirtualChannel>(suite, "RDP", 900);
    declareReceiving<TCPSocketVirtualChannel>(suite, "TCP", 900);

    suite.group("paced");
    declarePaced<CitrixVirtualChannel>(suite, "Citrix", 3);
    declarePaced<RDPVirtualChannel>(suite, "RDP", 3);
    declarePaced<VMWareVirtualChannel>(suite, "VMware", 10);
}
