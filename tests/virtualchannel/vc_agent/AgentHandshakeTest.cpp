// The control protocol's handshake, and what happens when a connection comes and goes.
#include <unistd.h>

#include "AgentFixture.h"
#include "Eventually.h"

using namespace testsupport;
using namespace VirtualChannelAgent;
using VDIFrameworkCommon::VDIClientInfo;

namespace {

using AgentHandshake = AgentTest;

constexpr char kOurStreams[] =
    "Basic-Generic-GenericUnReliable-LogCollection-Media-StringCipher-upgrade-";

// With the fields whose bits are set in `present`.
VCMessage handshake(MessageTypeEnum type, unsigned int present = 15) {
    auto message = control(type);
    if (present & 1) message.setSupportedStreams("Basic--Media-strange-");
    if (present & 2) message.setChannelVersion("9.8");
    if (present & 4) message.setInternalVersion("77");
    if (present & 8) message.setClientVersion("client 5");
    return message;
}

void expectOwnCapabilities(const VCMessage& message) {
    EXPECT_EQ(message.getSupportedStreams(), kOurStreams);
    EXPECT_EQ(message.getChannelVersion(), "1.0.679.0");
    EXPECT_EQ(message.getInternalVersion(), "1");
    EXPECT_EQ(message.getClientVersion(), "1.0.679");
}

}  // namespace

TEST_F(AgentHandshake, AnAgentPresentsItselfOnTheInfoStreamWhenItIsMade) {
    EXPECT_EQ(m_side.segment(infoOutputName())->text(), "created broadcast 10240");
    EXPECT_EQ(m_side.segment(infoInputName())->text(), "opened broadcast 10240");
    EXPECT_TRUE(m_side.segment(infoInputName())->isObserved());
    EXPECT_EQ(m_side.notifications(2),
              (Texts{"VCProcessId|" + std::to_string(getpid()) + "|0", "EnviromentType|citrix"}));
    EXPECT_FALSE(m_side.agent->IsConnected());
    EXPECT_EQ(m_channel.sentCount(), 0U);
}

TEST_F(AgentHandshake, OurPartBeginsWhenTheChannelBecomesAvailable) {
    m_side.becomesAvailable();
    const auto connect = takeOne();
    EXPECT_EQ(connect.bytes, wireOf(control(CTL_CONNECT)));
    EXPECT_FALSE(connect.lowPriority);

    m_channel.deliver(handshake(CTL_CONNECT_READY));
    EXPECT_TRUE(m_side.agent->IsConnected());
    const auto connected = takeOne().message();
    EXPECT_EQ(connected.getMessageType(), CTL_CONNECTED);
    expectOwnCapabilities(connected);
    EXPECT_EQ(m_channel.stateChanges(), std::vector<bool>{true});
    EXPECT_TRUE(m_side.machine->isMarked);
}

TEST_F(AgentHandshake, TheOtherPartAnswersConnectAndWaitsForConnected) {
    m_channel.deliver(control(CTL_CONNECT));
    const auto ready = takeOne().message();
    EXPECT_EQ(ready.getMessageType(), CTL_CONNECT_READY);
    expectOwnCapabilities(ready);
    EXPECT_FALSE(m_side.agent->IsConnected());

    m_side.forgetNotifications(2);
    m_channel.deliver(handshake(CTL_CONNECTED));
    EXPECT_TRUE(m_side.agent->IsConnected());
    EXPECT_EQ(m_channel.sentCount(), 0U);
    const std::string invalid =
        "InvalidStreams|Generic-GenericUnReliable-LogCollection-StringCipher-upgrade-";
    EXPECT_EQ(m_side.notifications(5), (Texts{"VCProcessId|" + std::to_string(getpid()) + "|1",
                                              "ChannelVersion|9.8|1.0.679.0",
                                              "EnviromentType|citrix", "ChannelUp", invalid}));
}

TEST_F(AgentHandshake, EachFieldOfTheHandshakeIsOptional) {
    auto& info = VDIClientInfo::getInstance();
    for (const auto type : {CTL_CONNECT_READY, CTL_CONNECTED}) {
        for (unsigned int present = 0; present < 16; ++present) {
            SCOPED_TRACE(present);
            AgentSide side;
            side.forgetNotifications(2);
            info.setPeerInternalVersion(3);
            info.setPeerClientVersion("before");
            side.channel.deliver(handshake(type, present));

            EXPECT_TRUE(side.agent->IsConnected());
            EXPECT_EQ(info.getPeerInternalVersion(), present & 4 ? 77 : 3);
            EXPECT_EQ(info.getPeerClientVersion(), present & 8 ? "client 5" : "");
            Texts expected{"VCProcessId", "EnviromentType", "ChannelUp"};
            if (present & 2) expected.insert(expected.begin() + 1, "ChannelVersion");
            if (present & 1) expected.push_back("InvalidStreams");
            EXPECT_EQ(side.operations(expected.size()), expected);
        }
    }
}

TEST_F(AgentHandshake, TwoAgentsThatConnectAtOnceBothEndUpConnected) {
    AgentSide other("other");
    m_side.becomesAvailable();
    other.becomesAvailable();
    EXPECT_TRUE(exchangeUntil(m_channel, other.channel, [&] {
        return m_side.agent->IsConnected() && other.agent->IsConnected() &&
               m_channel.sentCount() + other.channel.sentCount() == 0;
    }));
    EXPECT_EQ(m_channel.stateChanges(), std::vector<bool>{true});
    EXPECT_EQ(other.channel.stateChanges(), std::vector<bool>{true});
}

TEST_F(AgentHandshake, NoPartIsTakenWhileAnotherAgentIsActive) {
    m_side.machine->otherAgentIsActive = true;
    m_side.becomesAvailable();
    for (const auto type : {CTL_CONNECT, CTL_CONNECT_READY, CTL_CONNECTED}) {
        m_channel.deliver(handshake(type));
    }
    EXPECT_EQ(m_channel.sentCount(), 0U);
    EXPECT_FALSE(m_side.agent->IsConnected());
    m_side.machine->otherAgentIsActive = false;
    m_side.becomesAvailable();  // the change above was not stored
    EXPECT_EQ(m_channel.sentCount(), 1U);
    m_side.connect();
    m_side.machine->otherAgentIsActive = true;
    m_side.becomesAvailable(false);
    EXPECT_FALSE(m_side.agent->IsConnected());
}

TEST_F(AgentHandshake, ARepeatedConnectedAnnouncesTheStreamsAgainAndNothingElse) {
    m_side.connect();
    m_side.request("CreateStream|Media|500");
    m_side.request("OpenStream|Basic|600");
    m_side.sentTexts(2);
    m_side.forgetNotifications(5);
    m_channel.deliver(control(CTL_CONNECTED));
    EXPECT_EQ(m_side.sentTexts(2), (Texts{"6 Basic 0 600", "6 Media 1 500"}));
    EXPECT_EQ(m_side.operations(2), (Texts{"VCProcessId", "EnviromentType"}));
    EXPECT_EQ(m_log.count("SendMessageToChannelAboutStreamThread started. "), 1);
    const char* const checking = "CheckStreamStatesThread started.";
    EXPECT_TRUE(testsupport::eventually([&] { return m_log.contains(checking); }));
    EXPECT_EQ(m_log.count(checking), 1);
    EXPECT_EQ(m_channel.stateChanges().size(), 1U);
}

TEST_F(AgentHandshake, AConnectionIsLostAndFoundInOrder) {
    m_side.connect();
    m_side.request("CreateStream|Media|500");
    m_side.sentTexts(1);
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    m_side.forgetNotifications(5);

    m_channel.deliver(control(CTL_DISCONNECT));
    EXPECT_FALSE(m_side.agent->IsConnected());
    EXPECT_FALSE(m_side.machine->isMarked);
    EXPECT_EQ(m_side.operations(1), Texts{"ChannelDown"});
    m_channel.deliver(routed("Media", "late"));  // the stream runs on

    m_side.forgetNotifications(1);
    const int pausedBefore = m_side.machine->pausedMs;
    m_channel.deliver(control(CTL_CONNECTED));
    EXPECT_EQ(m_side.operations(3), (Texts{"VCProcessId", "EnviromentType", "ChannelUp"}));
    EXPECT_EQ(m_side.sentTexts(1), Texts{"6 Media 1 500"});
    EXPECT_TRUE(eventually([&] { return m_side.machine->pausedMs - pausedBefore == 5; }));
    m_channel.deliver(routed("Media", "again"));
    EXPECT_TRUE(eventually([&] { return m_side.segment("Media")->written().size() == 2; }));
    EXPECT_EQ(m_channel.stateChanges(), (std::vector<bool>{true, false, true}));
    EXPECT_TRUE(m_side.machine->isMarked);
}

TEST_F(AgentHandshake, LosingTheChannelEndsTheConnectionWithoutAWordToTheFarSide) {
    m_side.forgetNotifications(2);
    m_channel.deliver(control(CTL_DISCONNECT));
    EXPECT_EQ(m_side.operations(1), Texts{"ChannelDown"});  // is told even without a connection
    EXPECT_TRUE(m_channel.stateChanges().empty());
    m_side.becomesAvailable();
    m_side.connect();
    m_side.becomesAvailable();
    m_side.becomesAvailable(false);
    EXPECT_FALSE(m_side.agent->IsConnected());
    m_side.connect();
    m_channel.callObserver([](auto& o) { o.OnVirtualChannelShutdown(); });
    EXPECT_FALSE(m_side.agent->IsConnected());
    EXPECT_EQ(m_channel.sentCount(), 0U);
}

TEST_F(AgentHandshake, EventsOfSessionAndPlatformArePassedOn) {
    m_side.connect();
    m_side.forgetNotifications(5);
    m_channel.callObserver([](auto& o) {
        o.OnSessionAvailabilityChange(true);
        o.OnThinClientPlatformChange(4000000000U);
        o.OnChannelBlockedByPolicySetting(true);
        o.OnSessionAvailabilityChange(false);
    });
    EXPECT_EQ(m_side.notifications(5),
              (Texts{"SessionUp", "ThinClientPlatform|4000000000",
                     "ChannelBlockedByPolicySetting|1", "SessionDown", "ChannelDown"}));
    EXPECT_FALSE(m_side.agent->IsConnected());
}

TEST_F(AgentHandshake, WhatCannotBeUnderstoodIsLoggedAndDroppedOrSentBack) {
    m_channel.callObserver([](auto& o) { o.OnVirtualChannelReceiveData(nullptr, 40); });
    m_channel.deliver(std::string(300, '\xAB'));
    std::string bytes = wireOf(handshake(CTL_CONNECTED));
    bytes[20] = 'x';  // the block's flag
    m_channel.deliver(bytes);
    m_channel.deliver(control(static_cast<MessageTypeEnum>(8)));
    EXPECT_FALSE(m_side.agent->IsConnected());
    EXPECT_EQ(m_channel.sentCount(), 0U);

    m_channel.deliver(control(static_cast<MessageTypeEnum>(200)));
    const auto answer = takeOne();
    EXPECT_EQ(answer.message().getMessageType(), CTL_MESSAGE_TYPE_NOTSUPPORTED);
    EXPECT_EQ(answer.message().getUnsupportedMessageType(), 200);
    m_channel.deliver(answer.bytes);
    EXPECT_EQ(m_channel.sentCount(), 0U);
}

TEST_F(AgentHandshake, AnAgentWithoutAChannelGetsOneLater) {
    m_side.forgetNotifications(2);
    m_side.agent->SetVirtualChannel(nullptr);
    EXPECT_FALSE(m_channel.isObserved());
    for (const auto* unanswered : {"FlushLog", "IsSeamless", "IsMultiSession", "GetWindowHandle|1",
                                   "RequestEnviromentType"}) {
        m_side.request(unanswered);
    }
    EXPECT_EQ(m_side.notifications(1), Texts{"EnviromentType|unknown"});
    FakeChannel later;
    m_side.agent->SetVirtualChannel(&later);
    EXPECT_TRUE(later.isObserved());
    later.deliver(control(CTL_CONNECT));
    EXPECT_EQ(later.sentCount(), 1U);
    EXPECT_EQ(m_channel.sentCount(), 0U);
    m_side.agent->stop();
    m_side.agent->SetVirtualChannel(&later);
    EXPECT_FALSE(later.isObserved());
}
