// Segments made at the peer's request that a killed host leaves in the system.

#include "PeerSegmentRecord.h"
#include "SharedMemoryFactory.h"
#include "TestSupport.h"

using VirtualChannelAgent::PeerSegmentRecord;

namespace {

// Makes the named segments as an agent does, and keeps them until killed.
CHILD_ROLE(holdPeerSegments) {
    std::vector<std::shared_ptr<shared_memory::SharedMemoryI>> segments;
    for (const auto& name : args) {
        PeerSegmentRecord::add(name);
        segments.push_back(
            shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Plain));
        segments.back()->Create(name, 1000);
    }
    testsupport::say("done");
    testsupport::hear();
    return 0;
}

}  // namespace

TEST(PeerSegmentsAcrossProcesses, ThoseOfTheDeadAreRemovedUnlessALivingProcessUsesThem) {
    testsupport::ChildProcess agent("holdPeerSegments", {"left", "used"});
    ASSERT_EQ(agent.readLine(), "done");
    EXPECT_EQ(PeerSegmentRecord::removeLeftovers(), 0);
    const auto used =
        shared_memory::getSharedMemoryInstance(shared_memory::ESharedMemoryType::Plain);
    ASSERT_TRUE(used->Open("used", 1000));
    agent.kill();
    agent.wait();
    EXPECT_EQ(PeerSegmentRecord::removeLeftovers(), 1);
    used->Close();
    EXPECT_EQ(PeerSegmentRecord::removeLeftovers(), 1);
    EXPECT_EQ(PeerSegmentRecord::removeLeftovers(), 0);
}
