// The client library beside the real agent, in a process of its own whose far end answers by
// itself: what comes on "Media" goes back on "Basic".
#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <deque>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "Eventually.h"
#include "FakeAgent.h"
#include "NorvoStreamClient.h"
#include "Rounds.h"
#include "StreamType.h"
#include "Subprocess.h"
#include "VCMessage.h"
#include "VirtualChannel.h"
#include "VirtualChannelAgent.h"

namespace {

using namespace std::chrono_literals;
using namespace NorvoStreamClient;
using VirtualChannelAgent::MessageTypeEnum;
using VirtualChannelAgent::StreamType;
using VirtualChannelAgent::VCMessage;

constexpr auto kLong = 20s;

// A channel with the far side's agent in it.
class EchoChannel : public NorvoVirtualChannel::VirtualChannel {
public:
    EchoChannel() = default;
    ~EchoChannel() override { end(); }
    EchoChannel(const EchoChannel&) = delete;
    EchoChannel& operator=(const EchoChannel&) = delete;

    int GetMaxMsgSize() override { return 4992; }
    void AddObserver(NorvoVirtualChannel::Observer* observer) override { m_observer = observer; }
    void RemoveObserver(NorvoVirtualChannel::Observer* /*observer*/) override {
        m_observer = nullptr;
    }
    int GetType() override { return 4; }
    void ResetChannel() override {}
    void onAgentStateChange(bool /*connected*/) override {}

    int SendData(const void* data, unsigned int length, bool /*lowPriority*/) override {
        VCMessage message;
        if (!message.parseFromArray(data, length)) return -1;
        VCMessage reply;
        switch (message.getMessageType()) {
            case MessageTypeEnum::CTL_CONNECT:
                reply.setMessageType(MessageTypeEnum::CTL_CONNECT_READY);
                break;
            case MessageTypeEnum::CTL_S_CREATE:
                reply.setMessageType(MessageTypeEnum::CTL_S_CREATED);
                setStream(reply, message.getStreamName(),
                          VirtualChannelAgent::utils::GetMirroredSType(
                              static_cast<StreamType>(message.getStreamType())),
                          message.getStreamSize());
                break;
            case MessageTypeEnum::CTL_S_ROUTE: {
                reply.setMessageType(MessageTypeEnum::CTL_S_ROUTE);
                setStream(reply, "Basic", StreamType::READ, kDefaultCapacity);
                char* payload = nullptr;
                const unsigned int size = message.getRouteData(&payload);
                reply.setRouteData(payload, size);
                break;
            }
            default:
                return 0;
        }
        const auto bytes = reply.wireBytes();
        const std::lock_guard lock(m_mutex);
        m_replies.emplace_back(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        m_changed.notify_one();
        return 0;
    }

    // No observer is called from here on.
    void end() {
        {
            const std::lock_guard lock(m_mutex);
            m_ended = true;
        }
        m_changed.notify_one();
        if (m_farEnd.joinable()) m_farEnd.join();
    }

private:
    // Answers come on a thread of their own, as from a real host.
    void answer() {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [&] { return m_ended || !m_replies.empty(); });
            if (m_ended) return;
            const auto reply = std::move(m_replies.front());
            m_replies.pop_front();
            lock.unlock();
            if (NorvoVirtualChannel::Observer* const observer = m_observer)
                observer->OnVirtualChannelReceiveData(reply.data(),
                                                      static_cast<unsigned int>(reply.size()));
            lock.lock();
        }
    }

    static void setStream(VCMessage& message, const std::string& name, StreamType type,
                          unsigned int size) {
        message.setStreamName(name);
        message.setStreamType(static_cast<unsigned int>(type));
        message.setStreamSize(size);
    }

    std::atomic<NorvoVirtualChannel::Observer*> m_observer{nullptr};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::string> m_replies;
    bool m_ended = false;
    std::thread m_farEnd{[this] { answer(); }};
};

CHILD_ROLE(echo_agent) {
    useCrewsSegments();
    EchoChannel channel;
    VirtualChannelAgent::Agent agent(&channel, "echo");
    agent.OnVirtualChannelAvailabilityChange(true);
    testsupport::say("ready");
    testsupport::hear();
    agent.stop();
    channel.end();
    return 0;
}

struct EchoAgent : testsupport::ChildProcess {
    EchoAgent() : ChildProcess("echo_agent") { EXPECT_EQ(readLine(), "ready"); }
};

struct EchoStreams {
    explicit EchoStreams(Client& client)
        : out(client.openStream("Media", Direction::Write)),
          in(client.openStream("Basic", Direction::Read)) {}
    bool areUp() const { return out->waitUntilUp(kLong) && in->waitUntilUp(kLong); }
    std::string echoOf(const std::string& text) const {
        std::string answer;
        EXPECT_TRUE(out->write(text.data(), text.size(), kLong));
        EXPECT_TRUE(in->read(answer, kLong));
        return answer;
    }
    std::shared_ptr<Stream> out;
    std::shared_ptr<Stream> in;
};

TEST(RealAgentAcrossProcesses, MessagesOfAllSizesComeBackWholeAndInOrder) {
    EchoAgent agent;
    Client client;
    const EchoStreams streams(client);
    ASSERT_TRUE(streams.areUp());
    for (const std::size_t size : {std::size_t{1}, std::size_t{65535}, std::size_t{65536},
                                   std::size_t{65537}, std::size_t{655367}, std::size_t{8 << 20}}) {
        std::string text(size, 'x');
        for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i * 7 % 26);
        EXPECT_EQ(streams.echoOf(text), text) << size;
    }
    const int count = testsupport::rounds(500);
    std::thread writer([&] {
        for (int i = 0; i < count; ++i) {
            const std::string text = std::to_string(i);
            EXPECT_TRUE(streams.out->write(text.data(), text.size(), kLong));
        }
    });
    std::string answer;
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(streams.in->read(answer, kLong));
        ASSERT_EQ(answer, std::to_string(i));
    }
    writer.join();
}

TEST(RealAgentAcrossProcesses, StreamsComeBackAfterTheAgentWasKilledOrEnded) {
    std::atomic<int> losses{0};
    Options options;
    options.onConnectionChange = [&](bool connected) { losses += connected ? 0 : 1; };
    Client client(options);
    const EchoStreams streams(client);
    for (int i = 0; i < 3; ++i) {
        EchoAgent agent;
        ASSERT_TRUE(streams.areUp()) << i;
        EXPECT_EQ(client.agentProcessId(), static_cast<unsigned int>(agent.pid()));
        EXPECT_EQ(streams.echoOf("round " + std::to_string(i)), "round " + std::to_string(i));
        if (i == 1)
            agent.closeInput();
        else
            agent.kill();
        EXPECT_EQ(agent.wait(), i == 1 ? 0 : 128 + SIGKILL);
        ASSERT_TRUE(testsupport::eventually([&] { return !client.isConnected(); }, kLong)) << i;
        EXPECT_FALSE(streams.in->isUp());
    }
    client.close();
    EXPECT_EQ(losses, 3);
}

TEST(RealAgentAcrossProcesses, TheExamplesWorkAsTheyStand) {
    EchoAgent agent;
    const auto example = [](const std::string& name) {
        return NORVO_EXAMPLES "/norvo_example_" + name;
    };
    for (const std::string suffix : {"", "_c"}) {
        support::Subprocess receiver({example("receive" + suffix)});
        auto line = std::async(std::launch::async, [&] { return receiver.readLine(20s); });
        // Until the receiver listens, what comes back has nobody to go to.
        while (line.wait_for(0s) != std::future_status::ready) {
            support::Subprocess sender({example("send" + suffix)});
            ASSERT_EQ(sender.wait(), 0) << suffix;
        }
        EXPECT_EQ(line.get(), "hello");
        EXPECT_EQ(receiver.wait(), 0);
    }
}

}  // namespace
