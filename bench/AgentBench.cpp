// One routed message through agent, channel and packets in one process: out from a local process's
// segment to the host's callback, and in from the host's packets to a segment.
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "AgentEnvironment.h"
#include "AllocationCounter.h"
#include "Arrivals.h"
#include "CopyCounter.h"
#include "CpuTime.h"
#include "Harness.h"
#include "HostCallbacks.h"
#include "InfoSegments.h"
#include "LatencyRecorder.h"
#include "Packets.h"
#include "SharedMemoryFactory.h"
#include "StreamRules.h"
#include "StreamType.h"
#include "TCPSocketVirtualChannel.h"
#include "VCMessage.h"
#include "VirtualChannelAgent.h"

namespace {

using namespace VirtualChannelAgent;
using bench::Arrivals;
using bench::Sample;
using bench::secondsSince;
using bench::Suite;
using NorvoVirtualChannel::Packet;
using NorvoVirtualChannel::Packetization;
using NorvoVirtualChannel::tc::HostCallbacks;
using NorvoVirtualChannel::tc::TCPSocketVirtualChannel;
using Clock = std::chrono::steady_clock;

constexpr unsigned int kCapacity = 65536;
// More than 1001 in a queue would be dropped.
constexpr std::uint64_t kUnderWay = 500;
constexpr std::chrono::seconds kPatience{30};

// A segment whose reader takes everything at once: messages are copied into the slot and counted.
class InstantSegment : public shared_memory::SharedMemoryI {
public:
    explicit InstantSegment(Arrivals& arrivals) : m_arrivals(arrivals), m_slot(kCapacity) {}

    bool Create(const std::string& name, unsigned int) override { return m_name = name, true; }
    bool Open(const std::string& name, unsigned int) override { return m_name = name, true; }
    bool Close() override { return true; }
    std::string getName() override { return m_name; }
    bool WriteData(const void* data, const unsigned int& length) override {
        for (unsigned int done = 0; done < length; done += kCapacity) {
            std::memcpy(m_slot.data(), static_cast<const char*>(data) + done,
                        std::min(kCapacity, length - done));
        }
        if (m_name.find("Info") == std::string::npos) m_arrivals.add();
        return true;
    }
    std::string ReadData(unsigned int& length, unsigned int) override { return length = 0, ""; }
    bool ReadData(void**, unsigned int&) override { return false; }
    bool subscribeObserver(shared_memory::SharedMemoryObserverI* observer) override {
        m_observer = observer;
        return true;
    }
    void unsubscribeObserver(shared_memory::SharedMemoryObserverI*) override {
        m_observer = nullptr;
    }
    void unsubscribeAllObservers() override { m_observer = nullptr; }

    // The local process.
    void hand(std::string message) { m_observer->onNewMessageReceived(std::move(message), this); }

private:
    Arrivals& m_arrivals;
    std::vector<char> m_slot;
    std::string m_name;
    shared_memory::SharedMemoryObserverI* m_observer = nullptr;
};

// The real environment, except that its segments may be instant ones.
class BenchMachine : public AgentEnvironment {
public:
    BenchMachine(bool instant, Arrivals& arrivals) : m_instant(instant), m_arrivals(arrivals) {}

    std::shared_ptr<shared_memory::SharedMemoryI> makeSegment(SegmentKind kind) override {
        if (!m_instant) return m_real->makeSegment(kind);
        last = std::make_shared<InstantSegment>(m_arrivals);
        return last;
    }
    std::uint64_t nowMs() override { return m_real->nowMs(); }
    void pause(std::chrono::milliseconds duration) override { m_real->pause(duration); }
    bool wait(VDIFrameworkCommon::Event& event, std::chrono::milliseconds duration) override {
        return m_real->wait(event, duration);
    }
    bool hasOtherActiveAgent() override { return false; }
    bool markActive() override { return true; }
    void clearActive() override {}
    void endActivityWatch() override {}

    std::shared_ptr<InstantSegment> last;

private:
    const std::shared_ptr<AgentEnvironment> m_real = AgentEnvironment::system();
    const bool m_instant;
    Arrivals& m_arrivals;
};

// Takes every message of a local reader.
class Taker : public shared_memory::SharedMemoryObserverI {
public:
    explicit Taker(Arrivals& arrivals) : m_arrivals(arrivals) {}
    void onNewMessageReceived(std::string, shared_memory::SharedMemoryI*) override {
        m_arrivals.add();
    }

private:
    Arrivals& m_arrivals;
};

VCMessage aboutStream(MessageTypeEnum type, const char* name, StreamType streamType) {
    VCMessage message;
    message.setMessageType(type);
    if (name) {
        message.setStreamName(name);
        message.setStreamType(static_cast<unsigned int>(streamType));
        message.setStreamSize(kCapacity);
    }
    return message;
}

// A connected agent on a channel whose host is the bench, with the streams "out" (to the
// peer) and "in" (from it).
class Session {
public:
    explicit Session(bool instant) : m_machine(std::make_shared<BenchMachine>(instant, m_in)) {
        HostCallbacks::GetInstance().setAppendBuffer(&Session::append, this);
        HostCallbacks::GetInstance().setActive(true);
        m_agent = std::make_unique<Agent>(&m_channel, "bench", m_machine);
        m_channel.ChannelActive(1);
        deliver(aboutStream(CTL_CONNECTED, nullptr, StreamType::READ));
        for (const auto type : {CTL_S_CREATE, CTL_S_CREATED}) {
            deliver(aboutStream(type, "out", StreamType::WRITE));
            if (type == CTL_S_CREATE) m_outSegment = m_machine->last;
            deliver(aboutStream(type, "in", StreamType::READ));
        }
        if (!instant) openLocalEnds();
    }
    ~Session() {
        if (m_localReader) m_localReader->Close();
        if (m_localWriter) m_localWriter->Close();
        m_agent->stop();
        HostCallbacks::GetInstance().setActive(false);
        HostCallbacks::GetInstance().setAppendBuffer(nullptr, nullptr);
    }

    // Packets of a message of the peer for the stream "in", in order of arrival.
    std::vector<std::string> packetsFor(const std::string& data) {
        auto message = aboutStream(CTL_S_ROUTE, "in", StreamType::READ);
        message.setRouteData(data.data(), static_cast<unsigned int>(data.size()));
        std::vector<std::string> packets;
        for (const auto& packet : cut(message)) {
            const auto wire = packet->WireBytes();
            packets.emplace_back(reinterpret_cast<const char*>(wire.data()), wire.size());
        }
        return packets;
    }
    void receive(const std::vector<std::string>& packets) {
        for (const auto& packet : packets) {
            m_channel.ReceiveData(packet.data(), static_cast<unsigned int>(packet.size()));
        }
    }
    // The local process writes a message into the stream "out".
    void write(const std::string& data) {
        if (m_localWriter) {
            const auto deadline = Clock::now() + kPatience;
            while (!m_localWriter->WriteData(data.data(), static_cast<unsigned int>(data.size()))) {
                if (Clock::now() > deadline) throw std::runtime_error("nobody reads");
            }
        } else {
            m_outSegment->hand(data);
        }
    }
    const Arrivals& out() const { return m_out; }
    const Arrivals& in() const { return m_in; }

private:
    // Counts the routed messages by their first packet, which leaves last; control messages are
    // smaller than any of them.
    static int append(const void* packet, std::uint32_t, std::uintptr_t, void* self) {
        NorvoVirtualChannel::Header header;
        std::memcpy(&header, packet, sizeof header);
        if (header.sequence == 1 && header.messageSize > 150)
            static_cast<Session*>(self)->m_out.add();
        return 0;
    }
    std::vector<std::unique_ptr<Packet>> cut(const VCMessage& message) {
        const auto bytes = message.wireBytes();
        std::deque<Packet*> packets;
        m_packets.PacketizeData(bytes.data(), static_cast<unsigned int>(bytes.size()), packets);
        std::vector<std::unique_ptr<Packet>> owned;
        owned.reserve(packets.size());
        for (Packet* each : packets) owned.emplace_back(each);
        return owned;
    }
    void deliver(const VCMessage& message) {
        for (const auto& packet : cut(message)) {
            const auto wire = packet->WireBytes();
            m_channel.ReceiveData(wire.data(), static_cast<unsigned int>(wire.size()));
        }
    }
    void openLocalEnds() {
        m_localReader =
            shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Plain);
        m_localReader->Open("in", kCapacity);
        m_localReader->subscribeObserver(&m_taker);
        m_localWriter =
            shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Plain);
        m_localWriter->Create("out", kCapacity);
    }

    Arrivals m_out;
    Arrivals m_in;
    Taker m_taker{m_in};
    std::shared_ptr<BenchMachine> m_machine;
    TCPSocketVirtualChannel m_channel;
    Packetization m_packets{nullptr, 1500};
    std::unique_ptr<Agent> m_agent;
    std::shared_ptr<InstantSegment> m_outSegment;
    std::shared_ptr<shared_memory::SharedMemoryI> m_localReader;
    std::shared_ptr<shared_memory::SharedMemoryI> m_localWriter;
};

// Runs `one` `count` times, at most kUnderWay ahead of the arrivals.
void run(std::uint64_t count, const Arrivals& arrivals, std::uint64_t arrivedBefore,
         const std::function<void()>& one) {
    for (std::uint64_t i = 1; i <= count; ++i) {
        one();
        if (i > kUnderWay) arrivals.waitFor(arrivedBefore + i - kUnderWay);
    }
    arrivals.waitFor(arrivedBefore + count);
}

// Time and, in a separate pass, allocations and copied bytes per message of `size` bytes.
void measure(std::size_t size, std::uint64_t count, const Arrivals& arrivals,
             const std::function<void()>& one, Sample& sample) {
    const auto messages = static_cast<double>(count);
    const auto start = Clock::now();
    run(count, arrivals, 0, one);
    const double seconds = secondsSince(start);
    sample.set("time", seconds * 1e9 / messages, "ns");
    sample.set("messages", messages / seconds, "1/s");
    sample.set("bandwidth", messages * static_cast<double>(size) / seconds / 1e6, "MB/s");
    const bench::AllocationCounter allocations;
    const bench::CopyCounter copies;
    run(count, arrivals, count, one);
    const double bytes = messages * static_cast<double>(size);
    const auto used = allocations.read();
    const auto copied = static_cast<double>(copies.read());
    sample.set("allocations", static_cast<double>(used.count) / messages, "");
    sample.set("allocated", static_cast<double>(used.bytes) / bytes, "x");
    sample.set("copied", copied / messages, "B");
    sample.set("copies", copied / bytes, "x");
}

void measureOut(bool instant, std::size_t size, std::uint64_t count, Sample& sample) {
    Session session(instant);
    const std::string data(size, 'd');
    measure(
        size, count, session.out(), [&] { session.write(data); }, sample);
}

void measureIn(bool instant, std::size_t size, std::uint64_t count, Sample& sample) {
    Session session(instant);
    const auto packets = session.packetsFor(std::string(size, 'd'));
    measure(
        size, count, session.in(), [&] { session.receive(packets); }, sample);
}

// A local process that listens to the agent until it hears that the channel is up.
class Listener : public shared_memory::SharedMemoryObserverI {
public:
    explicit Listener(const std::string& segmentName) {
        m_segment->Open(segmentName, VDIFrameworkCommon::kInfoSegmentSize);
        m_segment->subscribeObserver(this);
    }
    ~Listener() override { m_segment->Close(); }
    void onNewMessageReceived(std::string message, shared_memory::SharedMemoryI*) override {
        if (message == "ChannelUp") m_heard.add();
    }
    void waitForChannelUp() const { m_heard.waitFor(1); }

private:
    Arrivals m_heard;
    std::shared_ptr<shared_memory::SharedMemoryI> m_segment =
        shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Broadcast);
};

// While nobody takes its notifications, an agent polls for a listener every millisecond, for 3 s
// per message: it is idle once they have been taken.
void measureIdle(std::chrono::milliseconds period, Sample& sample) {
    TCPSocketVirtualChannel channel;
    Agent agent(&channel, "bench");
    auto listener =
        std::make_unique<Listener>(VDIFrameworkCommon::infoNotificationsName("NorvoCrews"));
    channel.ChannelActive(1);
    const auto deliver = [&](const VCMessage& message) {
        const auto bytes = message.wireBytes();
        agent.OnVirtualChannelReceiveData(bytes.data(), static_cast<unsigned int>(bytes.size()));
    };
    deliver(aboutStream(CTL_CONNECTED, nullptr, StreamType::READ));
    bool reads = false;
    for (const std::string& name : supportedStreamNames()) {
        for (const auto type : {CTL_S_CREATE, CTL_S_CREATED}) {
            deliver(aboutStream(type, name.c_str(), reads ? StreamType::READ : StreamType::WRITE));
        }
        reads = !reads;
    }
    if (!agent.IsConnected()) throw std::runtime_error("the agent is not connected");
    listener->waitForChannelUp();
    listener.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const std::uint64_t before = bench::ownCpuNanoseconds();
    const auto start = Clock::now();
    std::this_thread::sleep_for(period);
    const double used = static_cast<double>(bench::ownCpuNanoseconds() - before) * 1e-9;
    sample.set("cpu", 100.0 * used / secondsSince(start), "%");
    agent.stop();
}

void declareSize(Suite& suite, const std::string& text, std::size_t size, std::uint64_t count) {
    suite.group(text);
    const std::uint64_t messages = suite.scaled(count);
    for (const bool instant : {true, false}) {
        const std::string segment = instant ? ", instant segment" : ", real segment";
        const auto out = suite.measure(
            "out" + segment, [=](Sample& sample) { measureOut(instant, size, messages, sample); });
        const auto in = suite.measure(
            "in" + segment, [=](Sample& sample) { measureIn(instant, size, messages, sample); });
        if (!instant || size < 16384) continue;
        // Out: the segment's string, the message, its packets. In: the joined message, the
        // queued string. Each may be reallocated while it is filled.
        suite.goal("allocated per byte, out", out["allocated"], bench::atMost(4.0, 3.2));
        suite.goal("allocated per byte, in", in["allocated"], bench::atMost(3.0, 2.2));
    }
}

}  // namespace

BENCH_SUITE(agent, "one routed message through agent, channel and packets; an idle agent") {
    declareSize(suite, "64 B", 64, 20000);
    declareSize(suite, "1 KiB", 1024, 20000);
    declareSize(suite, "16 KiB", 16384, 4000);
    declareSize(suite, "64 KiB", 65536, 1500);
    declareSize(suite, "1 MiB", 1 << 20, 150);
    suite.group("idle");
    const auto idle = suite.measure("connected agent with 7 streams", [&suite](Sample& sample) {
        measureIdle(std::chrono::milliseconds(suite.quick() ? 300 : 2000), sample);
    });
    suite.goal("idle CPU", idle["cpu"], bench::atMost(1.0, 0.5));
}
