// The INFO protocol: requests of local processes.
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

TEST_F(AgentInfo, QuestionsAreAnswered) {
    m_channel.seamless = true;
    for (const auto* question :
         {"RequestVCProcessId", "RequestEnviromentType", "RequestPeerVersion",
          "RequestInvalidStreams",  // no peer yet: no answer
          "IsSeamless", "IsMultiSession", "GetWindowHandle|4095"}) {
        m_side.request(question);
    }
    EXPECT_EQ(m_side.notifications(5),
              (Texts{"VCProcessId|" + std::to_string(getpid()) + "|0", "EnviromentType|citrix",
                     "IsSeamless|1", "IsMultiSession|0", "GetWindowHandle|4096"}));
    EXPECT_EQ(m_channel.sentCount(), 0U);

    m_side.request("SetHVDClientInfo|4294967295|x");
    const auto info = m_side.agent->getHvdClientInfoManager();
    EXPECT_EQ(info->first(), 4294967295U);
    EXPECT_EQ(info->second(), 0U);
}

TEST_F(AgentInfo, TheEnvironmentIsNamedByTheChannel) {
    for (const auto& [type, name] :
         {std::pair{2, "vmware"}, {3, "rdp"}, {4, "tcp"}, {5, "unknown"}}) {
        m_channel.type = type;
        m_side.request("RequestEnviromentType");
        EXPECT_TRUE(m_side.wasTold(std::string("EnviromentType|") + name));
    }
    m_channel.type = 2;  // that host runs the plug-in in a child process
    m_side.request("RequestVCProcessId");
    EXPECT_TRUE(m_side.wasTold("VCProcessId|" + std::to_string(getppid()) + "|0"));
}

TEST_F(AgentInfo, RunningStreamsAreListedAsALocalProcessSeesThem) {
    m_side.request("RequestNotifyStream");
    auto handshake = control(CTL_CONNECTED);
    handshake.setChannelVersion("9.8");
    handshake.setSupportedStreams("Basic-");
    m_channel.deliver(handshake);
    m_side.request("CreateStream|Media|10");
    m_side.request("OpenStream|Basic|10");
    m_side.request("CreateStream|Generic|10");
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Basic", kWrite));
    m_side.forgetNotifications(5);
    m_channel.deliver(aboutStream(CTL_S_CREATED, "Media", kRead));  // the peer did not list it
    m_side.request("RequestNotifyStream");
    m_side.request("RequestPeerVersion");
    const std::string invalid =
        "InvalidStreams|Generic-GenericUnReliable-LogCollection-Media-StringCipher-upgrade-";
    EXPECT_EQ(m_side.notifications(5),
              (Texts{invalid, "StreamUp|Basic|WRITE", "StreamUp|Media|READ",
                     "StreamUp|" + infoOutputName() + "|READ", "ChannelVersion|9.8|1.0.679.0"}));
}

TEST_F(AgentInfo, FlushLogReachesTheFarSide) {
    m_side.request("FlushLog");
    const auto sent = takeOne();
    EXPECT_EQ(sent.message().getMessageType(), CTL_LOGFLUSH);
    m_channel.deliver(sent.bytes);
    EXPECT_EQ(m_channel.sentCount(), 0U);
}

TEST_F(AgentInfo, TheLogMovesToAnotherDirectory) {
    TempDir dir;
    for (const std::string ending : {"/a/b", "/c/"}) {
        m_side.request("SetLogPath|" + dir.path() + ending);
        m_side.request("FlushLog");
        EXPECT_TRUE(std::filesystem::exists(dir.path() + ending + "/VirtualChannel.log"));
    }
    for (const std::string useless : {"/dev/null/x", "relative"}) {
        m_side.request("SetLogPath|" + useless);
        EXPECT_TRUE(m_log.contains("Cannot use this directory for the log: " + useless));
    }
    VirtualChannelLogger_init("");
}

TEST_F(AgentInfo, ARequestThatThereIsNoMemoryForIsDropped) {
    m_side.machine->onSegmentSetUp = [](const std::string&) { throw std::bad_alloc(); };
    m_side.request("CreateStream|Media|10");
    EXPECT_TRUE(m_log.contains("Message dropped: "));
    m_side.machine->onSegmentSetUp = nullptr;
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
