#pragma once

#include <set>
#include <string>

#include "LockOrder.h"

namespace VirtualChannelAgent {

// What the far side has announced in the handshake. Thread-safe.
class PeerCapabilities {
public:
    // The far side's channel version; empty when it gave none.
    void setChannelVersion(const std::string& version) NORVO_TAKES_LEAF;
    std::string channelVersion() const NORVO_TAKES_LEAF;

    // Takes the stream names out of `list` (each followed by "-"; only its first 64 KiB count).
    void setStreams(const std::string& list) NORVO_TAKES_LEAF;
    // The far side gave no list: what it said before is kept, but no longer taken as known.
    void forgetStreams() NORVO_TAKES_LEAF;
    bool streamsAreKnown() const NORVO_TAKES_LEAF;
    bool supports(const std::string& streamName) const NORVO_TAKES_LEAF;

    // The names that this side announces and the far side did not, "-" after each.
    std::string getInvalidStreams() const NORVO_TAKES_LEAF;

private:
    mutable VDIFrameworkCommon::LocalMutex m_mutex;
    std::string m_channelVersion NORVO_GUARDED_BY(m_mutex);
    std::set<std::string> m_streams NORVO_GUARDED_BY(m_mutex);
    bool m_streamsKnown NORVO_GUARDED_BY(m_mutex) = false;
};

}  // namespace VirtualChannelAgent
