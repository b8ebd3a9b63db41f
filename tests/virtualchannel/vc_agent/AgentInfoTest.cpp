// The INFO protocol: requests of local processes that AgentSessionTest does not cover.
#include <unistd.h>

#include <filesystem>
#include <new>

#include "AgentFixture.h"
#include "TempDir.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {
class AgentInfo : public AgentTest {
protected:
    AgentInfo() { m_side.forgetNotifications(2); }
};
}  // namespace

TEST_F(AgentInfo, SaysWhatTheChannelIsAndTakesWhatTheClientIs) {
    for (const auto& [type, name] :
         {std::pair{2, "vmware"}, {3, "rdp"}, {4, "tcp"}, {5, "unknown"}}) {
        m_channel.type = type;
        m_side.request("RequestEnviromentType");
        EXPECT_TRUE(m_side.wasTold(std::string("EnviromentType|") + name));
    }
    m_channel.seamless = true;
    m_side.request("IsSeamless");
    EXPECT_TRUE(m_side.wasTold("IsSeamless|1"));
    auto handshake = control(CTL_CONNECTED);
    handshake.setInternalVersion("77");
    handshake.setClientVersion("5.1");
    m_channel.deliver(handshake);
    EXPECT_EQ(VDIFrameworkCommon::VDIClientInfo::getInstance().getPeerInternalVersion(), 77);
    EXPECT_EQ(VDIFrameworkCommon::VDIClientInfo::getInstance().getPeerClientVersion(), "5.1");
    m_side.request("SetHVDClientInfo|4294967295|x");
    EXPECT_EQ(m_side.agent->getHvdClientInfoManager()->first(), 4294967295U);
    EXPECT_EQ(m_side.agent->getHvdClientInfoManager()->second(), 0U);
    m_channel.type = 2;  // VMware: the host runs the plug-in in a child process
    m_side.request("RequestVCProcessId");
    EXPECT_TRUE(m_side.wasTold("VCProcessId|" + std::to_string(getppid()) + "|1"));
}

TEST_F(AgentInfo, AnAgentWithoutAChannelGetsOneLater) {
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

TEST_F(AgentInfo, RunningStreamsAreListedAsALocalProcessSeesThem) {
    m_side.connect();
    m_side.request("CreateStream|Media|10");
    m_side.request("OpenStream|Basic|10");
    m_side.request("CreateStream|Generic|10");
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Basic", kWrite));
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));
    m_side.forgetNotifications(3);
    m_side.request("RequestNotifyStream");
    EXPECT_EQ(m_side.notifications(3), (Texts{"StreamUp|Basic|WRITE", "StreamUp|Media|READ",
                                              "StreamUp|" + infoOutputName() + "|READ"}));
}

TEST_F(AgentInfo, AStreamThatBothEndsUseAlikeIsToldToBeOfTheOtherDirection) {
    m_side.connect();
    m_side.request("OpenStream|Basic|10");
    m_channel.deliver(aboutStream(CTL_S_CREATE, "Basic", kRead));
    m_side.request("RequestNotifyStream");
    EXPECT_TRUE(m_side.wasTold("StreamUp|Basic|READ"));
    for (const auto& [farEnd, use] : {std::pair{kWrite, "WRITE"}, {kRead, "READ"}}) {
        m_side.segment(infoOutputName())->forget();
        m_channel.deliver(aboutStream(CTL_S_CREATED, "Basic", farEnd));
        EXPECT_TRUE(m_side.wasTold(std::string("StreamUp|Basic|") + use));
    }
}

TEST_F(AgentInfo, TheLogIsWrittenOutAtBothEndsAndMovesToAnotherDirectory) {
    TempDir dir;
    for (const std::string ending : {"/a/b", "/c/"}) {
        m_side.request("SetLogPath|" + dir.path() + ending);
        m_side.request("FlushLog");
        EXPECT_TRUE(std::filesystem::exists(dir.path() + ending + "/VirtualChannel.log"));
        const auto sent = takeOne();
        EXPECT_EQ(sent.message().getMessageType(), CTL_LOGFLUSH);
        m_channel.deliver(sent.bytes);
        EXPECT_EQ(m_channel.sentCount(), 0U);
    }
    for (const std::string useless : {"/dev/null/x", "relative"}) {
        m_side.request("SetLogPath|" + useless);
        EXPECT_TRUE(m_log.contains("Cannot use this directory for the log: " + useless));
    }
    VirtualChannelLogger_init("");
}

TEST_F(AgentInfo, ARequestThatThereIsNoMemoryForIsDropped) {
    m_side.machine->onSegmentSetUp = [](FakeSegment&) { throw std::bad_alloc(); };
    m_side.request("CreateStream|Media|10");
    EXPECT_TRUE(m_log.contains("Message dropped: "));
    m_side.machine->onSegmentSetUp = [](FakeSegment&) {};
    m_side.request("CreateStream|Media|10");
    EXPECT_TRUE(m_side.segment("Media"));
}

TEST_F(AgentInfo, AnythingElseIsAWrongMessage) {
    const Texts wrong{"",
                      "createstream|a|1",
                      "CreateStream",
                      "CreateStream|a",
                      "SetLogPath",
                      "StreamUp|a|READ",
                      "|",
                      std::string(5000, 'x'),
                      "RequestEnviromentType|" + std::string(64 * 1024, '|')};
    for (const auto& text : wrong) {
        m_log.clear();
        m_side.request(text);
        EXPECT_TRUE(m_log.contains("Wrong message: ")) << text;
    }
    EXPECT_EQ(m_side.segment(infoOutputName())->written(), Texts{});
}
