// Shared by the channel tests: the kinds, calls of a channel, and the runners that channels count.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>

#include "CitrixVirtualChannel.h"
#include "FakeHost.h"
#include "KRANRunner.h"
#include "ProcessUtils.h"
#include "RDPVirtualChannel.h"
#include "TCPSocketVirtualChannel.h"
#include "VDIRunnerCounter.h"
#include "VMWareVirtualChannel.h"

namespace testsupport {

using NorvoVirtualChannel::tc::TransportChannel;
using NorvoVirtualChannel::tc::WorkerThread;

struct Kind {
    const char* name;
    int type;
    int maxMsgSize;
    int breakTime;
    bool needsToBeActive;
    bool lowPriority;      // has a low priority
    unsigned int runners;  // counted by the constructor
    // Which messages pass: a after Shutdown(), b after ChannelActive(0), c after ChannelActive(1).
    const char* passAfterShutdown;
    std::unique_ptr<TransportChannel> (*make)(WorkerThread::Pause pause);
    TransportChannel& (*instance)();  // this process's instance
};
inline void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

template <class Channel>
std::unique_ptr<TransportChannel> makeChannel(WorkerThread::Pause pause) {
    return std::make_unique<Channel>(std::move(pause));
}
template <class Channel>
TransportChannel& theChannel() {
    return *Channel::GetInstance();
}

namespace kinds {
using namespace NorvoVirtualChannel;
using namespace NorvoVirtualChannel::tc;
inline const Kind all[] = {
    {"Citrix", kCitrix, 4992, 3, false, true, 1, "", makeChannel<CitrixVirtualChannel>,
     theChannel<CitrixVirtualChannel>},
    {"VMWare", kVMware, 1000, 10, true, true, 1, "ac", makeChannel<VMWareVirtualChannel>,
     theChannel<VMWareVirtualChannel>},
    {"RDP", kRdp, 1500, 3, false, true, 0, "abc", makeChannel<RDPVirtualChannel>,
     theChannel<RDPVirtualChannel>},
    {"TCPSocket", kTcpSocket, 1500, 0, true, false, 1, "c", makeChannel<TCPSocketVirtualChannel>,
     theChannel<TCPSocketVirtualChannel>}};
}  // namespace kinds

// How many runners are counted for this process.
inline unsigned int runners() {
    return VDIFrameworkCommon::VDIRunnerCounter::getInstance().count(
        VDIFrameworkCommon::ProcessUtils::getCurrentProcessId());
}

inline void forgetRunners() {
    while (runners() != 0) NorvoVirtualChannel::tc::removeRunner();
}

inline int send(TransportChannel& channel, const std::string& message, bool lowPriority = false) {
    return channel.SendData(message.data(), static_cast<unsigned int>(message.size()), lowPriority);
}

inline int receive(TransportChannel& channel, const std::string& packet) {
    return channel.ReceiveData(packet.data(), static_cast<unsigned int>(packet.size()));
}

}  // namespace testsupport
