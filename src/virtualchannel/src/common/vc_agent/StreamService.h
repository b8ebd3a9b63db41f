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

// Makes streams, starts them, hands them the far side's data, and frees those that nobody needs: no
// local process has them open, and neither side has used them for a minute. A stream that a local
// process has asked for which cannot be seen (it does not use this framework) is never freed. The
// segment of one that was made at the far side's wish goes with it. Any thread.
class StreamService {
public:
    StreamService(AgentContext& context, StreamTable& streams)
        : m_context(context), m_streams(streams) {}

    // Makes the outgoing INFO stream and starts it.
    void beginInfoOutput(unsigned int size) NORVO_TAKES_CREATION;

    // A segment without a stream. READ opens one that the agent reads next to other readers.
    StreamSegments::Segment CreateInternalSharedMemory(const std::string& name, StreamType type,
                                                       unsigned int size);

    // A stream that the agent writes into (CreateStream) or reads from (OpenStream), made when
    // there is none of that name, and the far side is asked for its end of it. An existing one is
    // kept as it is, whatever its type. False when the stream is refused (StreamRules.h; the INFO
    // streams' names).
    bool CreateStream(const std::string& name, unsigned int size,
                      Requester requester) NORVO_TAKES_CREATION;
    bool OpenStream(const std::string& name, unsigned int size,
                    Requester requester) NORVO_TAKES_CREATION;

    // The stream of that name; the type takes no part in the search. Empty when there is none.
    StreamPtr FindInternalStream(const std::string& name, StreamType type) NORVO_TAKES_STREAMS;

    // Starts serving the stream; with `checkPeerSupport`, local processes are told when the far
    // side has not announced it.
    void StartStreamProcessor(const StreamPtr& stream, bool checkPeerSupport) NORVO_TAKES_SERVICE;

    // Queues the far side's data for the local process. The INFO stream and streams that the agent
    // reads take none.
    void ProcessRoutableMessage(const StreamPtr& stream, const char* data,
                                std::size_t length) NORVO_TAKES_LEAF;

    // Frees the streams that nobody needs any more.
    void freeUnused() NORVO_TAKES_CREATION;

    // Ends every stream; none can be made any more.
    void closeAll() NORVO_TAKES_CREATION;

private:
    StreamPtr CreateInternalStream(const std::string& name, StreamType type, unsigned int size,
                                   bool broadcast);
    StreamPtr findOrMake(const std::string& name, StreamType type, unsigned int size,
                         Requester requester) NORVO_TAKES_CREATION;
    // A local process that wants the other direction hears at once which one it can have.
    void tellDirection(const Agent::Stream& stream, StreamType wanted) NORVO_TAKES_STREAMS;
    StreamPtr make(const StreamDetails& wanted, Requester requester)
        NORVO_REQUIRES(m_creationMutex) NORVO_TAKES_SERVICE;
    void noteRequest(Agent::Stream& stream, Requester requester);
    bool admits(const StreamDetails& wanted, Requester requester) NORVO_REQUIRES(m_creationMutex);
    bool add(const StreamPtr& stream, Requester requester)
        NORVO_REQUIRES(m_creationMutex) NORVO_TAKES_SERVICE;
    void announce(const StreamPtr& stream) NORVO_TAKES_LEAF;
    bool isUnused(Agent::Stream& stream, std::uint64_t nowMs) NORVO_TAKES_LEAF;
    void closeTogether(const std::vector<StreamPtr>& streams)
        NORVO_REQUIRES(m_creationMutex) NORVO_TAKES_SERVICE;
    // Whether data of the far side for this stream is written at once, and in the log why not.
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
