#include "PeerCapabilities.h"

#include "StreamRules.h"
#include "StreamType.h"

namespace VirtualChannelAgent {

using lock_order::OrderedLock;

void PeerCapabilities::setChannelVersion(const std::string& version) {
    OrderedLock lock(m_mutex, lock_order::leaf);
    m_channelVersion = version;
}

std::string PeerCapabilities::channelVersion() const {
    OrderedLock lock(m_mutex, lock_order::leaf);
    return m_channelVersion;
}

void PeerCapabilities::setStreams(const std::string& list) {
    constexpr std::size_t kLongest = 64 * 1024;
    std::set<std::string> names;
    utils::split(list.size() > kLongest ? list.substr(0, kLongest) : list, names, "-");
    OrderedLock lock(m_mutex, lock_order::leaf);
    m_streams = std::move(names);
    m_streamsKnown = true;
}

void PeerCapabilities::forgetStreams() {
    OrderedLock lock(m_mutex, lock_order::leaf);
    m_streamsKnown = false;
}

bool PeerCapabilities::streamsAreKnown() const {
    OrderedLock lock(m_mutex, lock_order::leaf);
    return m_streamsKnown;
}

bool PeerCapabilities::supports(const std::string& streamName) const {
    OrderedLock lock(m_mutex, lock_order::leaf);
    return m_streams.contains(streamName);
}

std::string PeerCapabilities::getInvalidStreams() const {
    OrderedLock lock(m_mutex, lock_order::leaf);
    std::string invalid;
    for (const auto& name : supportedStreamNames()) {
        if (!m_streams.contains(name)) invalid.append(name).append("-");
    }
    return invalid;
}

}  // namespace VirtualChannelAgent
