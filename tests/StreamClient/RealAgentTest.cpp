// The client library beside the real agent, in a process of its own whose far end answers by
// itself: what comes on "Media" goes back on "Basic".
#include <gmock/gmock.h>

#include <future>
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
        switch (message.getMessageType()) {
            case MessageTypeEnum::CTL_CONNECT:
                answer(MessageTypeEnum::CTL_CONNECT_READY);
                break;
            case MessageTypeEnum::CTL_S_CREATE:
                confirm(message);
                break;
            case MessageTypeEnum::CTL_S_ROUTE:
                echo(message);
                break;
            default:
                break;
        }
        return 0;
    }

private:
    void answer(MessageTypeEnum type) {
        VCMessage reply;
        reply.setMessageType(type);
        deliver(reply);
    }
    void confirm(const VCMessage& request) {
        VCMessage reply;
        reply.setMessageType(MessageTypeEnum::CTL_S_CREATED);
        const auto type = static_cast<StreamType>(request.getStreamType());
        setStream(reply, request.getStreamName(), mirrored(type), request.getStreamSize());
        deliver(reply);
    }
    void echo(const VCMessage& message) {
        char* data = nullptr;
        const unsigned int length = message.getRouteData(&data);
        VCMessage reply;
        reply.setMessageType(MessageTypeEnum::CTL_S_ROUTE);
        setStream(reply, "Basic", StreamType::READ, kDefaultCapacity);
        reply.setRouteData(data, length);
        deliver(reply);
    }
    static StreamType mirrored(StreamType type) {
        return VirtualChannelAgent::utils::GetMirroredSType(type);
    }
    static void setStream(VCMessage& message, const std::string& name, StreamType type,
                          unsigned int size) {
        message.setStreamName(name);
        message.setStreamType(static_cast<unsigned int>(type));
        message.setStreamSize(size);
    }
    void deliver(const VCMessage& message) {
        const auto bytes = message.wireBytes();
        NorvoVirtualChannel::Observer* observer = m_observer;
        if (observer)
            observer->OnVirtualChannelReceiveData(bytes.data(),
                                                  static_cast<unsigned int>(bytes.size()));
    }

    std::atomic<NorvoVirtualChannel::Observer*> m_observer{nullptr};
};

CHILD_ROLE(echo_agent) {
    useCrewsSegments();
    EchoChannel channel;
    VirtualChannelAgent::Agent agent(&channel, "echo");
    agent.OnVirtualChannelAvailabilityChange(true);
    testsupport::say("ready");
    testsupport::hear();
    agent.stop();
    return 0;
}

class EchoAgent {
public:
    EchoAgent() { EXPECT_EQ(m_process.readLine(), "ready"); }
    unsigned int pid() const { return static_cast<unsigned int>(m_process.pid()); }
    void kill() {
        m_process.kill();
        m_process.wait();
    }
    void stop() {
        m_process.closeInput();
        EXPECT_EQ(m_process.wait(), 0);
    }

private:
    testsupport::ChildProcess m_process{"echo_agent"};
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
    agent.stop();
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
        EXPECT_EQ(client.agentProcessId(), agent.pid());
        EXPECT_EQ(streams.echoOf("round " + std::to_string(i)), "round " + std::to_string(i));
        if (i == 1) {
            agent.stop();
        } else {
            agent.kill();
        }
        ASSERT_TRUE(testsupport::eventually([&] { return !client.isConnected(); }, kLong)) << i;
        EXPECT_FALSE(streams.in->isUp());
    }
    client.close();
    EXPECT_EQ(losses, 3);
}

TEST(RealAgentAcrossProcesses, TwoClientsShareAnAgent) {
    EchoAgent agent;
    Client listener;
    Client client;
    auto in = listener.openStream("Basic", Direction::Read);
    auto out = client.openStream("Media", Direction::Write);
    ASSERT_TRUE(in->waitUntilUp(kLong));
    ASSERT_TRUE(out->write("shared", 6, kLong));
    std::string message;
    EXPECT_TRUE(in->read(message, kLong));
    EXPECT_EQ(message, "shared");
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
