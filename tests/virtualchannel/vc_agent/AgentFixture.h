// One agent on the test's own machine and channel.
#pragma once

#include "FakeChannel.h"
#include "FakeMachine.h"
#include "InfoSegments.h"
#include "TestSupport.h"
#include "VDIClientInfo.h"
#include "VirtualChannelAgent.h"

namespace testsupport {

using Texts = std::vector<std::string>;

inline constexpr unsigned int kRead = 0;
inline constexpr unsigned int kWrite = 1;

inline std::string infoOutputName() {
    return VDIFrameworkCommon::infoNotificationsName("NorvoCrews");
}
inline std::string infoInputName() { return VDIFrameworkCommon::infoRequestsName("NorvoCrews"); }

// One side of a channel.
struct AgentSide {
    std::shared_ptr<FakeMachine> machine;
    FakeChannel channel;
    std::unique_ptr<VirtualChannelAgent::Agent> agent;

    explicit AgentSide(const std::string& name = "side",
                       std::shared_ptr<FakeMachine> on = std::make_shared<FakeMachine>())
        : machine(std::move(on)) {
        agent = std::make_unique<VirtualChannelAgent::Agent>(&channel, name, machine);
    }
    ~AgentSide() {
        if (agent) agent->stop();
    }
    AgentSide(const AgentSide&) = delete;
    AgentSide& operator=(const AgentSide&) = delete;

    void becomesAvailable(bool available = true) {
        channel.callObserver([=](auto& o) { o.OnVirtualChannelAvailabilityChange(available); });
    }
    // Makes the peer finish a handshake.
    void connect() {
        channel.deliver(control(VirtualChannelAgent::CTL_CONNECTED));
        channel.takeSent();
    }
    void request(const std::string& text) { segment(infoInputName())->localProcessWrites(text); }
    std::shared_ptr<FakeSegment> segment(const std::string& name) { return machine->segment(name); }

    // The messages sent, usually by the send thread: at least `count`.
    Texts sentTexts(std::size_t count) {
        Texts texts;
        EXPECT_TRUE(eventually([&] {
            for (const auto& sent : channel.takeSent()) texts.push_back(sent.text());
            return texts.size() >= count;
        }));
        return texts;
    }

    // The notifications to local processes since the last forgetNotifications(): at least `count`.
    Texts notifications(std::size_t count) {
        const auto info = segment(infoOutputName());
        EXPECT_TRUE(eventually([&] { return info->written().size() >= count; }));
        return info->written();
    }
    bool wasTold(const std::string& text) {
        return eventually([&] {
            const auto texts = segment(infoOutputName())->written();
            return std::find(texts.begin(), texts.end(), text) != texts.end();
        });
    }
    // Waits for `count` messages and forgets them.
    void forgetNotifications(std::size_t count) {
        notifications(count);
        segment(infoOutputName())->forget();
    }
};

class AgentTest : public ::testing::Test {
protected:
    LogCapture m_log;
    AgentSide m_side;
    FakeChannel& m_channel = m_side.channel;
};

}  // namespace testsupport
