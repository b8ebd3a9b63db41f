#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "AgentContext.h"
#include "LockOrder.h"
#include "StreamRules.h"
#include "StreamSegments.h"
#include "StreamTable.h"

namespace VirtualChannelAgent {

// Makes and starts streams, passes them the peer's data, and frees unused ones: those that no local
// process has open and neither side has used for a minute. A stream requested by a local process
// whose use cannot be seen (it does not use this framework) is never freed; after ten minutes if it
// is unknown whether one of several that requested it is such a one. A stream made at the
// peer's request is freed with its segment. Unused streams are looked for while the agents are
// connected, and when a local process's stream finds no room. Any thread.
class StreamService {
public:
    StreamService(AgentContext& context, StreamTable& streams)
        : m_context(context), m_streams(streams) {}

    // Makes the outgoing INFO stream and starts it.
    void beginInfoOutput(unsigned int size) NORVO_TAKES_CREATION;

    // Starts the INFO stream, and the retries of segments, if there was no thread for them.
    void catchUp() NORVO_TAKES_SERVICE;

    // A segment without a stream. READ opens one that the agent reads alongside other readers.
    StreamSegments::Segment CreateInternalSharedMemory(const std::string& name, StreamType type,
                                                       unsigned int size);

    // Makes a stream that the agent writes (CreateStream) or reads (OpenStream), unless one of that
    // name exists, and asks the peer for its end. An existing one is unchanged, whatever its type.
    // False when the stream is refused (StreamRules.h; the INFO streams' names).
    bool CreateStream(const std::string& name, unsigned int size,
                      Requester requester) NORVO_TAKES_CREATION;
    bool OpenStream(const std::string& name, unsigned int size,
                    Requester requester) NORVO_TAKES_CREATION;

    // The stream of that name, whatever its type. Empty when there is none.
    StreamPtr FindInternalStream(const std::string& name, StreamType type) NORVO_TAKES_STREAMS;

    // Starts serving the stream; with `checkPeerSupport`, local processes are told when the peer
    // has not announced it.
    void StartStreamProcessor(const StreamPtr& stream, bool checkPeerSupport) NORVO_TAKES_SERVICE;

    // Queues the peer's data for the local process. The INFO stream and streams that the agent
    // reads take none. False when the stream has just been freed: look for it again.
    bool ProcessRoutableMessage(const StreamPtr& stream, const char* data,
                                std::size_t length) NORVO_TAKES_LEAF;

    // Frees unused streams.
    void freeUnused() NORVO_TAKES_CREATION;

    // Ends all streams; no more can be made.
    void closeAll() NORVO_TAKES_CREATION;

private:
    StreamPtr CreateInternalStream(const std::string& name, StreamType type, unsigned int size,
                                   bool broadcast);
    StreamPtr findOrMake(const std::string& name, StreamType type, unsigned int size,
                         Requester requester) NORVO_TAKES_CREATION;
    // Tells a local process that wants the other direction which one it can have.
    void tellDirection(Agent::Stream& stream, StreamType wanted) NORVO_TAKES_STREAMS;
    StreamPtr make(const StreamDetails& wanted, Requester requester)
        NORVO_REQUIRES(m_creationMutex) NORVO_TAKES_SERVICE;
    void noteRequest(Agent::Stream& stream, Requester requester);
    void freeUnusedOnes() NORVO_REQUIRES(m_creationMutex) NORVO_TAKES_SERVICE;
    bool admits(const StreamDetails& wanted, Requester requester)
        NORVO_REQUIRES(m_creationMutex) NORVO_TAKES_SERVICE;
    bool add(const StreamPtr& stream, Requester requester)
        NORVO_REQUIRES(m_creationMutex) NORVO_TAKES_SERVICE;
    void announce(const StreamPtr& stream) NORVO_TAKES_LEAF;
    bool tryGiveUp(Agent::Stream& stream, std::uint64_t nowMs) NORVO_TAKES_LEAF;
    void closeTogether(const StreamTable::Streams& streams)
        NORVO_REQUIRES(m_creationMutex) NORVO_TAKES_SERVICE;
    // Whether the peer's data for this stream is written at once; logs why not.
    bool IsStreamRoutable(const Agent::Stream& stream) const;

    AgentContext& m_context;
    StreamTable& m_streams;

    VDIFrameworkCommon::LocalMutex m_creationMutex;  // one stream is made at a time
    StreamLoad m_load NORVO_GUARDED_BY(m_creationMutex);
    std::set<std::string> m_madeForPeer NORVO_GUARDED_BY(m_creationMutex);
    StreamSegments m_segments{m_context};
    KLT::kltlogger::LogRepeats m_refused;
    mutable KLT::kltlogger::LogRepeats m_notRoutable;
    KLT::kltlogger::LogRepeats m_notTaken;
    KLT::kltlogger::LogRepeats m_tooLong;
};

}  // namespace VirtualChannelAgent
