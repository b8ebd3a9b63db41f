norvo_layer(norvo_messages
    SOURCES
        MessageBytes.cpp
        StreamType.cpp
        VCDataBlock.cpp
        VCMessage.cpp
    USES norvo_framework)
