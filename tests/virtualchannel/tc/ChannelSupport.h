// What the tests of channels share: the kinds there are, calls of a channel, and the runners that
// channels count.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "CitrixVirtualChannel.h"
#include "FakeHost.h"
#include "ProcessUtils.h"
#include "RDPVirtualChannel.h"
#include "TCPSocketVirtualChannel.h"
#include "VDIRunnerCounter.h"
#include "VMWareVirtualChannel.h"
#include "WorkRecord.h"

namespace testsupport {

using Kinds = testing::Types<
    NorvoVirtualChannel::tc::CitrixVirtualChannel, NorvoVirtualChannel::tc::VMWareVirtualChannel,
    NorvoVirtualChannel::tc::RDPVirtualChannel, NorvoVirtualChannel::tc::TCPSocketVirtualChannel>;

// How many runners this process is counted with.
inline unsigned int runners() {
    return VDIFrameworkCommon::VDIRunnerCounter::getInstance().count(
        VDIFrameworkCommon::ProcessUtils::getCurrentProcessId());
}

inline void forgetRunners() {
    while (runners() != 0) {
        VDIFrameworkCommon::VDIRunnerCounter::getInstance().removeRunner(
            VDIFrameworkCommon::ProcessUtils::getCurrentProcessId());
    }
}

inline int send(NorvoVirtualChannel::tc::TransportChannel& channel, const std::string& message,
                bool lowPriority = false) {
    return channel.SendData(message.data(), static_cast<unsigned int>(message.size()), lowPriority);
}

inline int receive(NorvoVirtualChannel::tc::TransportChannel& channel, const Bytes& packet) {
    return channel.ReceiveData(packet.data(), static_cast<unsigned int>(packet.size()));
}

// Has the host note each packet in `entered` and wait at `door` before it takes it.
inline void holdUp(FakeHost& host, Journal& entered, Door& door) {
    host.onPacket = [&] {
        entered.add("packet");
        door.pass();
    };
}

}  // namespace testsupport
