// The messages that the agents at the two ends of a virtual channel exchange.
//
// On the wire, a message is a 20-byte header (RecordHeader with the message flag) followed by its
// blocks in the order they were added. Each block is one field (VCDataBlock.h).
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "MessageBytes.h"
#include "VCDataBlock.h"

namespace VirtualChannelAgent {

// One byte on the wire. 8 is not used.
enum MessageTypeEnum : unsigned char {
    CTL_NOOP = 0,
    CTL_MESSAGE_TYPE_NOTSUPPORTED = 1,
    CTL_CONNECT = 2,
    CTL_CONNECT_READY = 3,
    CTL_CONNECTED = 4,
    CTL_DISCONNECT = 5,
    CTL_S_CREATE = 6,
    CTL_S_CREATED = 7,
    CTL_S_ROUTE = 9,
    CTL_S_ERROR = 10,
    CTL_LOGFLUSH = 11,
};

// A message type and fields, stored in wire format: building writes each value once, sending needs
// no further copy (`wireBytes`), and a received message can be read in place (`parseInPlace`). Up
// to about 240 bytes need no heap. Not synchronised; copies are independent and may be used on
// different threads.
//
// Each setter adds a field; calling it twice adds two. Getters read the first field of their code;
// without one they log and return 0 or empty text and leave `out` unchanged. A field for which
// there is no memory is logged and left out. Unknown fields are kept, but no getter finds them.
class VCMessage {
public:
    // Not initialised, type 0, no fields.
    VCMessage() { reset(); }
    // A copy shares the fields until one of the two changes. A copy of a message parsed in place
    // owns its bytes; when there is no memory for them it is a default message.
    VCMessage(const VCMessage& other) { *this = other; }
    VCMessage& operator=(const VCMessage& other);

    // Stores the type and makes the message initialised.
    void setMessageType(MessageTypeEnum type);
    // CTL_NOOP for an unsupported type.
    MessageTypeEnum getMessageType() const;
    // The type byte as it is.
    unsigned char rawMessageType() const { return m_type; }
    bool isMessageTypeSupported() const;
    bool isInitialized() const { return m_initialized; }

    // Adds a copy of the block; nothing when it is null or invalid.
    void addDataBlock(const std::shared_ptr<VCDataBlock>& block);

    void setUnsupportedMessageType(unsigned char type);
    unsigned char getUnsupportedMessageType() const;
    bool hasUnsupportedMessageType() const;

    void setStreamName(const std::string& name);
    std::string getStreamName() const;
    bool hasStreamName() const;

    void setStreamType(unsigned int type);
    unsigned int getStreamType() const;
    bool hasStreamType() const;

    void setStreamSize(unsigned int bytes);
    unsigned int getStreamSize() const;
    bool hasStreamSize() const;

    // Null `data` with a length stands for that many zeros.
    void setRouteData(const char* data, unsigned int length);
    // Points `out` at the data, inside the message (or, after `parseInPlace`, the received bytes),
    // and returns its length. Do not modify it. Valid until the message changes or is destroyed.
    // Returns 0 when `out` is null or the data is empty.
    unsigned int getRouteData(char** out) const;
    bool hasRouteData() const;

    // What goes on the wire before `length` bytes of routed data, which the sender keeps where they
    // are: the message with that field added. Empty, after a log line, when there is no memory for
    // it or the whole would exceed 4 GiB.
    MessageBytes wireBytesBefore(std::size_t length) const;

    // Stream names, each followed by "-".
    void setSupportedStreams(const std::string& streams);
    std::string getSupportedStreams() const;
    bool hasSupportedStreams() const;

    void setChannelVersion(const std::string& version);
    std::string getChannelVersion() const;
    bool hasChannelVersion() const;

    // A decimal integer as text.
    void setInternalVersion(const std::string& version);
    std::string getInternalVersion() const;
    bool hasInternalVersion() const;

    void setClientVersion(const std::string& version);
    std::string getClientVersion() const;
    bool hasClientVersion() const;

    // Size in bytes of all blocks, and of the whole message.
    unsigned int getTotalDataSize() const { return byteSize() - RecordHeader::kSize; }
    unsigned int byteSize() const { return m_bytes.size(); }

    // Writes the message to `out`, which has room for `size` bytes. False, with nothing written,
    // when `out` is null or too small.
    bool serializeToArray(void* out, unsigned int size) const;
    // The same bytes without a copy. Valid until the message changes or is destroyed. After
    // `parseInPlace` they are the received bytes, whose unused header bytes need not be 0.
    std::span<const std::byte> wireBytes() const { return {m_bytes.data(), m_bytes.size()}; }

    // Whether `data` begins with the header of a message of exactly `length` bytes; logs a failure.
    static bool verifyData(const void* data, unsigned int length);
    // Replaces the message by a received one, copying its bytes once. Anything but a well-formed
    // message is logged and returns false: then drop the message. (If its header was valid, it
    // holds the type and the blocks before the broken one.)
    bool parseFromArray(const void* data, unsigned int length);
    // The same without a copy: `data` must outlive the message, or its next change or copy. A
    // getter returns only so much of a text, as the far side can announce one without sending it.
    static constexpr unsigned int kLongestTextInPlace = 64 * 1024;  // bytes
    bool parseInPlace(const void* data, unsigned int length);

private:
    enum class Keep { Copy, InPlace };

    void reset();
    bool parse(const void* data, unsigned int length, Keep keep);
    // Writes the header for the current contents.
    void writeHeader();
    std::byte* addBlock(std::uint8_t code, std::size_t valueSize);
    void addText(std::uint8_t code, const std::string& text);
    void addNumber(std::uint8_t code, unsigned int value);
    // The first block of that code, or an empty view.
    std::span<const std::byte> find(std::uint8_t code) const;
    std::string text(std::uint8_t code, std::string_view failure) const;
    unsigned int number(std::uint8_t code, std::string_view failure) const;

    bool m_initialized = false;
    std::uint8_t m_type = 0;
    MessageBytes m_bytes;  // the header and the blocks; well-formed at all times
};

}  // namespace VirtualChannelAgent
