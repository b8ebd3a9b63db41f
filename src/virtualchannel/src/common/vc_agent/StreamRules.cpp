#include "StreamRules.h"

#include <algorithm>

namespace VirtualChannelAgent {

const std::set<std::string>& supportedStreamNames() {
    static const std::set<std::string> names{"Basic",        "Generic", "GenericUnReliable",
                                             "StringCipher", "Media",   "LogCollection",
                                             "upgrade"};
    return names;
}

std::string supportedStreamsText() {
    std::string text;
    for (const auto& name : supportedStreamNames()) text.append(name).append("-");
    return text;
}

bool isUsableStreamName(std::string_view name) {
    const auto isForbidden = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F || c == '/';
    };
    return !name.empty() && name.size() <= kMaxStreamNameLength &&
           std::none_of(name.begin(), name.end(), isForbidden);
}

void StreamLoad::add(unsigned int size, bool forPeer) {
    streams++;
    totalSize += size;
    peerStreams += forPeer ? 1 : 0;
    peerTotalSize += forPeer ? size : 0;
}

void StreamLoad::remove(unsigned int size, bool forPeer) {
    streams--;
    totalSize -= size;
    peerStreams -= forPeer ? 1 : 0;
    peerTotalSize -= forPeer ? size : 0;
}

std::string_view refusalOfStream(std::string_view name, unsigned int size, bool forPeer,
                                 const StreamLoad& load) {
    if (!isUsableStreamName(name)) return "its name cannot be used";
    if (size == 0) return "its size is 0";
    if (size > kMaxStreamSize) return "it is too large";
    if (load.streams >= kMaxStreams) return "there are too many streams";
    if (forPeer && load.peerStreams >= kMaxPeerStreams) {
        return "the far side has asked for too many streams";
    }
    if (forPeer && load.peerTotalSize + size > kMaxPeerTotalSize) {
        return "the far side's streams together are too large";
    }
    if (load.totalSize + size > kMaxTotalStreamSize) return "all streams together are too large";
    return {};
}

}  // namespace VirtualChannelAgent
