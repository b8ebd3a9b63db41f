norvo_layer(norvo_agent
    SOURCES
        AgentConnection.cpp
        AgentEnvironment.cpp
        AgentStream.cpp
        ChannelLink.cpp
        ControlProtocol.cpp
        Handshake.cpp
        InfoNotifier.cpp
        InfoRequests.cpp
        OutgoingMessages.cpp
        PeerCapabilities.cpp
        StreamRules.cpp
        StreamService.cpp
        StreamStateChecker.cpp
        StreamTable.cpp
        VirtualChannelAgent.cpp
    USES norvo_messages norvo_channel_interface norvo_sharedmemory norvo_framework)
# The order of the agent's locks (LockOrder.h) is part of the analysis.
target_compile_options(norvo_agent PRIVATE
    $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wthread-safety-beta>)
