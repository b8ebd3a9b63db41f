#pragma once

#include <memory>
#include <string>

#include "AgentContext.h"
#include "LockOrder.h"
#include "StreamRules.h"
#include "StreamTable.h"

namespace VirtualChannelAgent {

// On whose wish a stream is made.
enum class Requester { LocalProcess, FarSide };

// Makes streams, starts them, and hands them the far side's data. Any thread.
class StreamService {
public:
    StreamService(AgentContext& context, StreamTable& streams)
        : m_context(context), m_streams(streams) {}

    // Makes the outgoing INFO stream and starts it.
    void beginInfoOutput(unsigned int size) NORVO_TAKES_CREATION;

    // A set-up segment without a stream; empty when it could not be set up. READ opens a segment
    // that the agent reads next to other readers.
    std::shared_ptr<SharedMemoryI> CreateInternalSharedMemory(const std::string& name,
                                                              StreamType type, unsigned int size);

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

    // Ends every stream; none can be made any more.
    void closeAll() NORVO_TAKES_CREATION;

private:
    struct SegmentSetup;
    static const SegmentSetup kInfoOutput;
    static const SegmentSetup kReadStream;
    static const SegmentSetup kWrittenStream;
    static const SegmentSetup kReadMemory;
    static const SegmentSetup kWrittenMemory;

    StreamPtr CreateInternalStream(const std::string& name, StreamType type, unsigned int size,
                                   bool broadcast);
    std::shared_ptr<SharedMemoryI> setUpSegment(const std::string& name, unsigned int size,
                                                const SegmentSetup& setup);
    StreamPtr findOrMake(const std::string& name, StreamType type, unsigned int size,
                         Requester requester) NORVO_TAKES_CREATION;
    // A local process that wants the other direction hears at once which one it can have.
    void tellDirection(const Agent::Stream& stream, StreamType wanted) NORVO_TAKES_STREAMS;
    bool admits(const std::string& name, unsigned int size, Requester requester)
        NORVO_REQUIRES(m_creationMutex);
    bool add(const StreamPtr& stream, Requester requester)
        NORVO_REQUIRES(m_creationMutex) NORVO_TAKES_SERVICE;
    void announce(const StreamPtr& stream) NORVO_TAKES_LEAF;
    // Whether data of the far side for this stream is written at once, and in the log why not.
    bool IsStreamRoutable(const Agent::Stream& stream) const;

    AgentContext& m_context;
    StreamTable& m_streams;

    VDIFrameworkCommon::LocalMutex m_creationMutex;  // one stream is made at a time
    StreamLoad m_load NORVO_GUARDED_BY(m_creationMutex);
};

}  // namespace VirtualChannelAgent
