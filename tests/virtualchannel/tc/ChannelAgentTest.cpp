// The agent of a channel, which is never deleted during a call.
#include <gtest/gtest.h>

#include <future>

#include "FakeHost.h"
#include "KLTLogger.h"
#include "RDPVirtualChannel.h"
#include "VCMessage.h"
#include "WorkRecord.h"

using namespace NorvoVirtualChannel::tc;
using namespace std::chrono_literals;
using testsupport::Door;

namespace {

// Blocks the thread that logs a certain line.
class HoldingSink : public KLT::kltlogger::LogSink {
public:
    void write(const KLT::kltlogger::LogRecord& record) override {
        if (record.message.find("Received CTL_NOOP") == std::string_view::npos) return;
        entered.open();
        door.pass();
    }
    Door entered;
    Door door;
};

}  // namespace

TEST(ChannelAgentTest, IsKeptUntilACallOfTheHostHasLeftIt) {
    const auto sink = std::make_shared<HoldingSink>();
    const auto before = KLT::kltlogger::setSink(sink);
    RDPVirtualChannel channel;
    channel.OnChannelInitialize();
    VirtualChannelAgent::VCMessage message;
    message.setMessageType(VirtualChannelAgent::CTL_NOOP);
    const auto packets = testsupport::packetsOf(packettest::textOf(message.wireBytes()), 1500);
    auto call = std::async(std::launch::async, [&] {
        return channel.ReceiveData(packets[0].data(), static_cast<unsigned>(packets[0].size()));
    });
    ASSERT_TRUE(sink->entered.pass());
    auto end = std::async(std::launch::async, [&] { channel.Shutdown(); });
    EXPECT_EQ(end.wait_for(100ms), std::future_status::timeout);
    sink->door.open();
    end.get();
    EXPECT_EQ(call.get(), 0);
    KLT::kltlogger::setSink(before);
}
