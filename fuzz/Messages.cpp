// An agent message as the peer may send it.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "VCMessage.h"

using VirtualChannelAgent::VCMessage;

namespace {

std::string serialised(const VCMessage& message) {
    std::string bytes(message.byteSize(), '\0');
    if (!message.serializeToArray(bytes.data(), message.byteSize())) abort();
    return bytes;
}

// Everything a receiver may read from a message, even from one that did not parse.
std::string readAll(const VCMessage& message) {
    std::string all = message.getStreamName() + message.getSupportedStreams() +
                      message.getChannelVersion() + message.getInternalVersion() +
                      message.getClientVersion();
    all += std::to_string(message.getStreamType() + message.getStreamSize() +
                          message.getUnsupportedMessageType() + message.getMessageType());
    char* data = nullptr;
    const unsigned int length = message.getRouteData(&data);
    if (length > 0 && !message.hasRouteData()) abort();
    return all.append(length > 0 ? data : "", length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto length = static_cast<unsigned int>(size);
    VCMessage copied;
    VCMessage inPlace;
    const bool parsed = copied.parseFromArray(data, length);
    if (inPlace.parseInPlace(data, length) != parsed) abort();
    const std::string values = readAll(copied);
    if (readAll(inPlace) != values || serialised(inPlace) != serialised(copied)) abort();

    // A parsed message survives serialising and parsing again unchanged.
    const std::string again = serialised(copied);
    VCMessage repeated;
    if (!repeated.parseFromArray(again.data(), static_cast<unsigned int>(again.size()))) abort();
    if (readAll(repeated) != values || (parsed && again.size() != size)) abort();

    VCMessage changed = inPlace;
    changed.setStreamName("added");
    if (!changed.hasStreamName() || serialised(inPlace) != again) abort();
    return 0;
}
