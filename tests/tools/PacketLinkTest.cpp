#include "PacketLink.h"

#include "Endpoint.h"
#include "PacketHeader.h"
#include "TestSupport.h"

namespace vcctl {
namespace {

TEST(PacketLink, ASenderWaitsForAPeerThatTakesNothingUntilTheLinkIsClosed) {
    const auto listener = Endpoint::parse("127.0.0.1:0", false).listen();
    const auto place = Endpoint::parse("127.0.0.1:0", false).boundText(listener.get());
    PacketLink link(overSocket(Endpoint::parse(place, false).connect()), 1500, [](auto...) {});
    const auto peer = acceptFrom(listener.get());

    std::array<unsigned char, 1500> packet{};
    std::atomic<std::size_t> sent = 0;
    std::thread sender([&] {
        while (link.send(packet.data(), packet.size())) sent += packet.size();
    });
    std::size_t before = 1;
    EXPECT_TRUE(testsupport::eventually([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return std::exchange(before, sent.load()) == sent.load();
    })) << "it never waits";
    EXPECT_LT(sent.load(), 2U << 20);

    link.close("enough");
    sender.join();
    EXPECT_EQ(link.closeReason(), "enough");
}

}  // namespace
}  // namespace vcctl
