#pragma once

#include <set>
#include <string>

#include "LockOrder.h"

namespace VirtualChannelAgent {

// What the peer has announced in the handshake. Thread-safe.
class PeerCapabilities {
public:
    // The peer's channel version; empty when it sent none.
    void setChannelVersion(const std::string& version) NORVO_TAKES_LEAF;
    std::string channelVersion() const NORVO_TAKES_LEAF;

    // Parses the stream names in `list` (each followed by "-"; only its first 64 KiB count).
    void setStreams(const std::string& list) NORVO_TAKES_LEAF;
    // The peer sent no list: the previous names are kept, but no longer count as known.
    void forgetStreams() NORVO_TAKES_LEAF;
    bool streamsAreKnown() const NORVO_TAKES_LEAF;
    bool supports(const std::string& streamName) const NORVO_TAKES_LEAF;

    // The names that this side announces and the peer did not, each followed by "-".
    std::string getInvalidStreams() const NORVO_TAKES_LEAF;

private:
    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    std::string m_channelVersion NORVO_GUARDED_BY(m_mutex);
    std::set<std::string> m_streams NORVO_GUARDED_BY(m_mutex);
    bool m_streamsKnown NORVO_GUARDED_BY(m_mutex) = false;
};

}  // namespace VirtualChannelAgent
