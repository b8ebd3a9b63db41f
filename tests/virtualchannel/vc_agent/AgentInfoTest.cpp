// The INFO protocol: requests of local processes that AgentSessionTest does not cover.
#include <new>

#include "AgentFixture.h"
#include "TestSupport.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {
class AgentInfo : public AgentTest {
protected:
    AgentInfo() { m_side.forgetNotifications(2); }
};
}  // namespace

TEST_F(AgentInfo, KeepsWhatThePeerAndTheClientAre) {
    auto handshake = control(CTL_CONNECTED);
    handshake.setInternalVersion("77");
    handshake.setClientVersion("5.1");
    m_channel.deliver(handshake);
    EXPECT_EQ(VDIFrameworkCommon::VDIClientInfo::getInstance().getPeerInternalVersion(), 77);
    EXPECT_EQ(VDIFrameworkCommon::VDIClientInfo::getInstance().getPeerClientVersion(), "5.1");
    m_side.request("SetHVDClientInfo|4294967295|x");
    EXPECT_EQ(m_side.agent->getHvdClientInfoManager()->first(), 4294967295U);
    EXPECT_EQ(m_side.agent->getHvdClientInfoManager()->second(), 0U);
}

TEST_F(AgentInfo, TheLogMovesToAnotherDirectory) {
    TempDir dir;
    for (const std::string ending : {"/a/b", "/c/"}) {
        m_side.request("SetLogPath|" + dir.path() + ending);
        EXPECT_TRUE(std::filesystem::exists(dir.path() + ending + "/VirtualChannel.log"));
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

TEST_F(AgentInfo, ATooLongRequestIsAWrongMessage) {
    m_side.request("RequestEnviromentType|" + std::string(64 * 1024, '|'));
    EXPECT_TRUE(m_log.contains("Wrong message: "));
    EXPECT_EQ(m_side.segment(infoOutputName())->written(), Texts{});
}
