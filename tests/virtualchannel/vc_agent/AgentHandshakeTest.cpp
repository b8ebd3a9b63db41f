// The control protocol's handshake, and what happens when a connection comes and goes.
#include <unistd.h>

#include "AgentFixture.h"

using namespace testsupport;
using namespace VirtualChannelAgent;
using testing::ElementsAre;
using testing::IsEmpty;
using VDIFrameworkCommon::VDIClientInfo;

namespace {

using AgentHandshake = AgentTest;

constexpr char kOurStreams[] =
    "Basic-Generic-GenericUnReliable-LogCollection-Media-StringCipher-upgrade-";

VCMessage fullHandshake(MessageTypeEnum type) {
    auto message = control(type);
    message.setSupportedStreams(kOurStreams);
    message.setChannelVersion("9.8");
    message.setInternalVersion("77");
    message.setClientVersion("client 5");
    return message;
}

void expectOwnCapabilities(const VCMessage& message) {
    EXPECT_EQ(message.getSupportedStreams(), kOurStreams);
    EXPECT_EQ(message.getChannelVersion(), "1.0.679.0");
    EXPECT_EQ(message.getInternalVersion(),
              std::to_string(VDIClientInfo::getInstance().getMyInternalVersion()));
    EXPECT_EQ(message.getClientVersion(), VDIClientInfo::getInstance().getClientVersion());
}

}  // namespace

TEST_F(AgentHandshake, AnAgentPresentsItselfOnTheInfoStreamWhenItIsMade) {
    EXPECT_TRUE(m_log.contains(
        "side - Virtual Channel Agent created (PRINT_MESSAGES: disabled), version: 1.0.679.0"));
    const auto output = m_side.segment(infoOutputName());
    EXPECT_EQ(output->kind(), FakeSegment::Kind::Broadcast);
    EXPECT_EQ(output->mode(), FakeSegment::Mode::Created);
    EXPECT_EQ(output->size(), 10240U);
    const auto input = m_side.segment(infoInputName());
    EXPECT_EQ(input->kind(), FakeSegment::Kind::Broadcast);
    EXPECT_EQ(input->mode(), FakeSegment::Mode::Opened);
    EXPECT_EQ(input->size(), 10240U);
    EXPECT_TRUE(input->isObserved());
    EXPECT_THAT(
        m_side.notifications(2),
        ElementsAre("VCProcessId|" + std::to_string(getpid()) + "|0", "EnviromentType|citrix"));
    EXPECT_FALSE(m_side.agent->IsConnected());
    EXPECT_THAT(m_side.channel.takeSent(), IsEmpty());
}

TEST_F(AgentHandshake, OurPartBeginsWhenTheChannelBecomesAvailable) {
    m_side.becomesAvailable();
    auto sent = m_side.channel.takeSent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].message().getMessageType(), CTL_CONNECT);
    EXPECT_EQ(sent[0].bytes.size(), 20U);
    EXPECT_FALSE(sent[0].lowPriority);

    m_side.channel.deliver(fullHandshake(CTL_CONNECT_READY));
    EXPECT_TRUE(m_side.agent->IsConnected());
    sent = m_side.channel.takeSent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].message().getMessageType(), CTL_CONNECTED);
    expectOwnCapabilities(sent[0].message());
    EXPECT_THAT(m_side.channel.stateChanges(), ElementsAre(true));
    EXPECT_TRUE(m_side.machine->isMarked);
}

TEST_F(AgentHandshake, TheOtherPartAnswersConnectAndWaitsForConnected) {
    m_side.channel.deliver(control(CTL_CONNECT));
    const auto sent = m_side.channel.takeSent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].message().getMessageType(), CTL_CONNECT_READY);
    expectOwnCapabilities(sent[0].message());
    EXPECT_FALSE(m_side.agent->IsConnected());

    m_side.channel.deliver(fullHandshake(CTL_CONNECTED));
    EXPECT_TRUE(m_side.agent->IsConnected());
    EXPECT_THAT(m_side.channel.takeSent(), IsEmpty());
}

TEST_F(AgentHandshake, LocalProcessesLearnOfTheFirstConnectionInOrder) {
    m_side.forgetNotifications(2);
    auto handshake = control(CTL_CONNECTED);
    handshake.setChannelVersion("9.8");
    handshake.setSupportedStreams("Basic--Media-strange-");
    m_side.channel.deliver(handshake);
    EXPECT_THAT(m_side.notifications(5),
                ElementsAre("VCProcessId|" + std::to_string(getpid()) + "|1",
                            "ChannelVersion|9.8|1.0.679.0", "EnviromentType|citrix", "ChannelUp",
                            "InvalidStreams|Generic-GenericUnReliable-LogCollection-StringCipher-"
                            "upgrade-"));
}

TEST_F(AgentHandshake, EachFieldOfTheHandshakeIsOptional) {
    auto& info = VDIClientInfo::getInstance();
    for (const auto type : {CTL_CONNECT_READY, CTL_CONNECTED}) {
        for (int present = 0; present < 16; ++present) {
            SCOPED_TRACE(present);
            Side side;
            side.forgetNotifications(2);
            info.setPeerInternalVersion(3);
            info.setPeerClientVersion("before");
            auto message = control(type);
            if (present & 1) message.setSupportedStreams("Basic-");
            if (present & 2) message.setChannelVersion("9.8");
            if (present & 4) message.setInternalVersion("77");
            if (present & 8) message.setClientVersion("client 5");
            side.channel.deliver(message);

            EXPECT_TRUE(side.agent->IsConnected());
            EXPECT_EQ(info.getPeerInternalVersion(), present & 4 ? 77 : 3);
            EXPECT_EQ(info.getPeerClientVersion(), present & 8 ? "client 5" : "");
            std::vector<std::string> expected{"VCProcessId", "EnviromentType", "ChannelUp"};
            if (present & 2) expected.insert(expected.begin() + 1, "ChannelVersion");
            if (present & 1) expected.push_back("InvalidStreams");
            EXPECT_EQ(side.operations(expected.size()), expected);
        }
    }
    EXPECT_TRUE(m_log.contains("side - No peer virtual channel version"));
    EXPECT_TRUE(m_log.contains("side - No peer internal version"));
    EXPECT_TRUE(m_log.contains("side - No peer client version"));
    EXPECT_TRUE(m_log.contains("side - Receive Peer Supported Streams is empty"));
}

TEST_F(AgentHandshake, TwoAgentsThatConnectAtOnceBothEndUpConnected) {
    Side other("other");
    m_side.becomesAvailable();
    other.becomesAvailable();
    EXPECT_TRUE(exchangeUntil(m_side.channel, other.channel, [&] {
        return m_side.agent->IsConnected() && other.agent->IsConnected() &&
               m_side.channel.sentCount() + other.channel.sentCount() == 0;
    }));
    EXPECT_EQ(m_side.channel.stateChanges(), std::vector<bool>{true});
    EXPECT_EQ(other.channel.stateChanges(), std::vector<bool>{true});
}

TEST_F(AgentHandshake, NoPartIsTakenWhileAnotherAgentIsActive) {
    m_side.machine->otherAgentIsActive = true;
    m_side.becomesAvailable();
    for (const auto type : {CTL_CONNECT, CTL_CONNECT_READY, CTL_CONNECTED}) {
        m_side.channel.deliver(fullHandshake(type));
    }
    EXPECT_THAT(m_side.channel.takeSent(), IsEmpty());
    EXPECT_FALSE(m_side.agent->IsConnected());
    for (const auto* what : {"OnVirtualChannelAvailabilityChange", "CTL_CONNECT",
                             "CTL_CONNECT_READY", "CTL_CONNECTED"}) {
        EXPECT_TRUE(m_log.contains(
            std::string("Another virtual channel agent is connected, so ignore ") + what + "."));
    }
    m_side.machine->otherAgentIsActive = false;
    m_side.becomesAvailable();  // the change above was not stored
    EXPECT_FALSE(m_log.contains("Availability didn't actually change"));
    EXPECT_EQ(m_side.channel.takeSent().size(), 1U);
}

TEST_F(AgentHandshake, ARepeatedConnectedAnnouncesTheStreamsAgainAndNothingElse) {
    m_side.connect();
    m_side.request("CreateStream|Media|500");
    m_side.request("OpenStream|Basic|600");
    m_side.sentTexts(2);
    m_side.forgetNotifications(5);
    m_side.channel.deliver(control(CTL_CONNECTED));
    EXPECT_THAT(m_side.sentTexts(2), ElementsAre("6 Basic 0 600", "6 Media 1 500"));
    EXPECT_THAT(m_side.operations(2), ElementsAre("VCProcessId", "EnviromentType"));
    EXPECT_EQ(m_log.count("SendMessageToChannelAboutStreamThread started. "), 1);
    EXPECT_EQ(m_log.count("CheckStreamStatesThread started."), 1);
    EXPECT_EQ(m_side.channel.stateChanges().size(), 1U);
}

TEST_F(AgentHandshake, AConnectionIsLostAndFoundInOrder) {
    m_side.connect();
    m_side.request("CreateStream|Media|500");
    m_side.sentTexts(1);
    m_side.channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    m_side.forgetNotifications(5);

    m_side.channel.deliver(control(CTL_DISCONNECT));
    EXPECT_FALSE(m_side.agent->IsConnected());
    EXPECT_FALSE(m_side.machine->isMarked);
    EXPECT_EQ(m_side.operations(1), std::vector<std::string>{"ChannelDown"});
    EXPECT_EQ(m_log.count("Finishing SendMessageToChannelAboutStreamThread thread/method"), 1);
    EXPECT_EQ(m_log.count("Finishing CheckStreamStatesThread thread/method"), 1);

    m_side.forgetNotifications(1);
    const int pausedBefore = m_side.machine->pausedMs;
    m_side.channel.deliver(control(CTL_CONNECTED));
    EXPECT_THAT(m_side.operations(3), ElementsAre("VCProcessId", "EnviromentType", "ChannelUp"));
    EXPECT_THAT(m_side.sentTexts(1), ElementsAre("6 Media 1 500"));
    EXPECT_EQ(m_side.machine->pausedMs - pausedBefore, 5);
    EXPECT_THAT(m_side.channel.stateChanges(), ElementsAre(true, false, true));
    EXPECT_TRUE(m_side.machine->isMarked);
}

TEST_F(AgentHandshake, LosingTheChannelEndsTheConnectionWithoutAWordToTheFarSide) {
    m_side.becomesAvailable();
    m_side.connect();
    m_side.becomesAvailable();
    EXPECT_TRUE(m_log.contains("Availability didn't actually change"));
    m_side.becomesAvailable(false);
    EXPECT_FALSE(m_side.agent->IsConnected());
    m_side.connect();
    m_side.channel.callObserver([](auto& o) { o.OnVirtualChannelShutdown(); });
    EXPECT_FALSE(m_side.agent->IsConnected());
    EXPECT_TRUE(m_log.contains("setting disconnect"));
    EXPECT_THAT(m_side.channel.takeSent(), IsEmpty());
}

TEST_F(AgentHandshake, ADisconnectWithoutAConnectionIsStillTold) {
    m_side.forgetNotifications(2);
    m_side.channel.deliver(control(CTL_DISCONNECT));
    EXPECT_EQ(m_side.operations(1), std::vector<std::string>{"ChannelDown"});
    EXPECT_THAT(m_side.channel.stateChanges(), IsEmpty());
}

TEST_F(AgentHandshake, EventsOfSessionAndPlatformArePassedOn) {
    m_side.connect();
    m_side.forgetNotifications(5);
    m_side.channel.callObserver([](auto& o) {
        o.OnSessionAvailabilityChange(true);
        o.OnThinClientPlatformChange(4000000000U);
        o.OnChannelBlockedByPolicySetting(true);
        o.OnSessionAvailabilityChange(false);
    });
    EXPECT_THAT(m_side.notifications(5),
                ElementsAre("SessionUp", "ThinClientPlatform|4000000000",
                            "ChannelBlockedByPolicySetting|1", "SessionDown", "ChannelDown"));
    EXPECT_FALSE(m_side.agent->IsConnected());
}

TEST_F(AgentHandshake, WhatCannotBeUnderstoodIsLoggedAndDropped) {
    m_side.channel.callObserver([](auto& o) { o.OnVirtualChannelReceiveData(nullptr, 40); });
    EXPECT_TRUE(m_log.contains(
        "NULL message received. Probably pre-TPL3307 protocol on the other side [DE18836]"));

    m_side.channel.deliver(std::string(300, '\xAB'));
    EXPECT_TRUE(m_log.contains("Message broken and cannot be processed"));
    std::string dump = "side - HEX DATA ( 300 bytes  ): ";
    for (int i = 0; i < 128; ++i) dump += "ab ";
    EXPECT_THAT(m_log.lines(), testing::Contains(dump));

    auto broken = control(CTL_CONNECTED);
    broken.setChannelVersion("9.8");
    std::string bytes = wireOf(broken);
    bytes[20] = 'x';  // the block's flag
    m_side.channel.deliver(bytes);
    EXPECT_FALSE(m_side.agent->IsConnected());

    m_side.channel.deliver(control(static_cast<MessageTypeEnum>(8)));
    EXPECT_TRUE(m_log.contains("Unknown ctrlOp code received '8'"));
    EXPECT_THAT(m_side.channel.takeSent(), IsEmpty());
}

TEST_F(AgentHandshake, ATypeThatIsNotSupportedIsSentBack) {
    m_side.channel.deliver(control(static_cast<MessageTypeEnum>(200)));
    EXPECT_TRUE(m_log.contains("Message is not supported, type: 200"));
    const auto sent = m_side.channel.takeSent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].message().getMessageType(), CTL_MESSAGE_TYPE_NOTSUPPORTED);
    EXPECT_EQ(sent[0].message().getUnsupportedMessageType(), 200);

    m_side.channel.deliver(sent[0].bytes);
    EXPECT_TRUE(m_log.contains("Message type not supported by peer, type: 200"));
    EXPECT_THAT(m_side.channel.takeSent(), IsEmpty());
}

TEST_F(AgentHandshake, AnAgentWithoutAChannelGetsOneLater) {
    Side side;
    side.agent->SetVirtualChannel(nullptr);
    EXPECT_FALSE(side.channel.isObserved());
    side.request("FlushLog");  // nowhere to send to
    FakeChannel later;
    side.agent->SetVirtualChannel(&later);
    EXPECT_TRUE(later.isObserved());
    later.deliver(control(CTL_CONNECT));
    EXPECT_EQ(later.takeSent().size(), 1U);
    EXPECT_THAT(side.channel.takeSent(), IsEmpty());
    side.agent->stop();
    EXPECT_FALSE(later.isObserved());
}
