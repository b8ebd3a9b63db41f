// Requests of local processes. The input is a sequence of texts, each after a length byte.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "FakeChannel.h"
#include "FakeMachine.h"
#include "MessageParser.h"
#include "StreamRules.h"
#include "VirtualChannelAgent.h"

using testsupport::FakeChannel;
using testsupport::FakeMachine;

namespace {

// SetLogPath would create directories wherever the text says.
bool isSetLogPath(const std::string& text) {
    return VDIFrameworkCommon::MessageParser(text).parseMsg().front() == "SetLogPath";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto machine = std::make_shared<FakeMachine>();
    FakeChannel channel;
    VirtualChannelAgent::Agent agent(&channel, "fuzz", machine);
    channel.deliver(testsupport::control(VirtualChannelAgent::CTL_CONNECTED));
    while (size > 0) {
        const size_t length = std::min<size_t>(data[0], size - 1);
        const std::string text(reinterpret_cast<const char*>(data + 1), length);
        if (!isSetLogPath(text)) agent.onNewMessageReceived(text, nullptr);
        data += 1 + length;
        size -= 1 + length;
    }
    constexpr int kMost = VirtualChannelAgent::kMaxStreams + 1;
    if (machine->openSegments() > kMost) abort();
    agent.stop();
    return 0;
}
