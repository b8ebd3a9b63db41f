// The plug-in library as a black box: wire packets at one end, a local process at the other.
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FakeChannel.h"
#include "LanguageAbstraction.h"
#include "NorvoStreamClient.h"
#include "PacketBytes.h"
#include "TempDir.h"
#include "VCMessage.h"
#include "WireSocket.h"

using namespace std::chrono_literals;
using namespace VirtualChannelAgent;
using NorvoStreamClient::Client;
using NorvoStreamClient::Direction;
using testsupport::ChildProcess;
using testsupport::control;
using testsupport::wireOf;
using testsupport::WireSocket;

namespace {

// The far end of the channel, packet by packet.
class FarEnd {
public:
    FarEnd(const std::string& path, unsigned int packetSize)
        : m_packetSize(packetSize),
          m_socket(WireSocket::listenAt(path)),
          m_packets(&m_received, static_cast<int>(packetSize)) {}

    void send(const VCMessage& message) {
        for (const auto& packet : packettest::cut(m_packets, wireOf(message))) {
            const auto wire = packet->WireBytes();
            m_socket.send(wire.data(), wire.size());
        }
    }
    // The next message of that type (and stream); others keep their place.
    VCMessage await(MessageTypeEnum type, const std::string& stream = {}) {
        const auto deadline = std::chrono::steady_clock::now() + 30s;
        while (std::chrono::steady_clock::now() < deadline) {
            auto& messages = m_received.messages;
            for (auto each = messages.begin(); each != messages.end(); ++each) {
                const VCMessage message = testsupport::FakeChannel::Sent{*each}.message();
                if (message.getMessageType() != type ||
                    (!stream.empty() && message.getStreamName() != stream)) {
                    continue;
                }
                messages.erase(each);
                return message;
            }
            takePacket();
        }
        ADD_FAILURE() << "no message of type " << int{type} << ' ' << stream;
        return {};
    }

private:
    void takePacket() {
        std::string bytes;
        if (!m_socket.receive(bytes, 100ms)) return;
        EXPECT_LE(bytes.size(), m_packetSize);
        packettest::receive(m_packets, bytes);
    }

    const unsigned int m_packetSize;
    WireSocket m_socket;
    packettest::Receiver m_received;
    NorvoVirtualChannel::Packetization m_packets;
};

std::string dataOf(const VCMessage& message) {
    char* data = nullptr;
    const unsigned int length = message.getRouteData(&data);
    return {data, length};
}

struct Kind {
    const char* number;
    unsigned int packetSize;
};
void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.number; }

class PluginAcrossProcesses : public testing::TestWithParam<Kind> {
protected:
    void command(const std::string& line) {
        m_host.writeLine(line);
        ASSERT_EQ(m_host.readLine(), "done");
    }
    void connect() {
        command("active 1");
        m_farEnd.await(CTL_CONNECT);
        auto ready = control(CTL_CONNECT_READY);
        ready.setSupportedStreams("Basic-Media-");
        ready.setChannelVersion("1.0.679.0");
        m_farEnd.send(ready);
        const auto connected = m_farEnd.await(CTL_CONNECTED);
        EXPECT_EQ(connected.getSupportedStreams(),
                  "Basic-Generic-GenericUnReliable-LogCollection-Media-StringCipher-upgrade-");
        EXPECT_EQ(connected.getChannelVersion(), "1.0.679.0");
    }
    // Answers the agent's wish for the other end of a stream.
    void confirm(const std::string& stream) {
        const auto wish = m_farEnd.await(CTL_S_CREATE, stream);
        m_farEnd.send(testsupport::aboutStream(CTL_S_CREATED, stream, 1 - wish.getStreamType(),
                                               wish.getStreamSize()));
    }

    testsupport::TempDir m_dir;
    ChildProcess m_host{"pluginHost",
                        {PLUGIN_LIBRARY, GetParam().number, "connect", m_dir / "wire"}};
    FarEnd m_farEnd{m_dir / "wire", GetParam().packetSize};
};

}  // namespace

TEST_P(PluginAcrossProcesses, CarriesDataBothWaysAndAgainAfterALoss) {
    connect();
    Client client;
    const auto out = client.openStream("Media", Direction::Write);
    const auto in = client.openStream("Basic", Direction::Read);
    ASSERT_TRUE(out && in);
    confirm("Media");
    confirm("Basic");
    for (int connection = 0; connection < 2; ++connection) {
        SCOPED_TRACE(connection);
        ASSERT_TRUE(out->waitUntilUp(30s) && in->waitUntilUp(30s));
        for (const std::size_t size : {1U, 976U, 977U, 100'000U}) {
            SCOPED_TRACE(size);
            const std::string text = packettest::pattern(size);
            ASSERT_TRUE(out->write(text.data(), size, 30s));
            const auto routed = m_farEnd.await(CTL_S_ROUTE);
            EXPECT_EQ(routed.getStreamName(), "Media");
            EXPECT_EQ(routed.getStreamType(), 0U);
            EXPECT_TRUE(dataOf(routed) == text);

            m_farEnd.send(testsupport::routed("Basic", text));
            std::string read;
            ASSERT_TRUE(in->read(read, 30s));
            EXPECT_TRUE(read == text);
        }
        if (connection == 0) {
            command("active 0");
            EXPECT_TRUE(testsupport::eventually([&] { return !client.isConnected(); }));
            connect();
            m_farEnd.await(CTL_S_CREATE, "Basic");
            m_farEnd.await(CTL_S_CREATE, "Media");
        }
    }
    client.close();
    m_host.closeInput();
    EXPECT_EQ(m_host.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, PluginAcrossProcesses,
                         testing::Values(Kind{"1", 4992}, Kind{"2", 1000}, Kind{"3", 1500},
                                         Kind{"4", 1500}),
                         [](const auto& kind) { return std::string("Kind") + kind.param.number; });
