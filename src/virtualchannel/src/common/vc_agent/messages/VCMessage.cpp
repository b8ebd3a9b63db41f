#include "VCMessage.h"

#include <cstring>
#include <limits>

#include "Log.h"

namespace VirtualChannelAgent {

namespace {

constexpr std::uint32_t kHeaderSize = RecordHeader::kSize;
constexpr unsigned char kTypeCount = CTL_LOGFLUSH + 1;

enum Field : std::uint8_t {
    UnsupportedMessageType = 1,
    StreamName = 2,
    StreamType = 3,
    StreamSize = 4,
    RouteData = 5,
    SupportedStreams = 6,
    ChannelVersion = 7,
    InternalVersion = 8,
    ClientVersion = 9,
};

// The offset up to which a message's blocks are well-formed: `size` when all are.
std::uint32_t endOfGoodBlocks(const std::byte* message, std::uint32_t size) {
    std::uint32_t offset = kHeaderSize;
    while (size - offset >= kHeaderSize) {
        const RecordHeader block = RecordHeader::read(message + offset);
        if (block.size > size - offset || block.size < kHeaderSize ||
            block.flag != RecordHeader::kBlockFlag)
            break;
        offset += block.size;
    }
    return offset;
}

}  // namespace

VCMessage& VCMessage::operator=(const VCMessage& other) {
    m_initialized = other.m_initialized;
    m_type = other.m_type;
    m_bytes = other.m_bytes;
    if (m_bytes.size() < kHeaderSize) reset();
    return *this;
}

void VCMessage::reset() {
    m_initialized = false;
    m_type = 0;
    m_bytes.clear();
    m_bytes.append(kHeaderSize);
    writeHeader();
}

void VCMessage::writeHeader() {
    if (std::byte* const bytes = m_bytes.own())
        RecordHeader{RecordHeader::kMessageFlag, m_type, m_bytes.size()}.write(bytes);
}

void VCMessage::setMessageType(MessageTypeEnum type) {
    m_type = type;
    m_initialized = true;
    writeHeader();
}

MessageTypeEnum VCMessage::getMessageType() const {
    return isMessageTypeSupported() ? static_cast<MessageTypeEnum>(m_type) : CTL_NOOP;
}

bool VCMessage::isMessageTypeSupported() const { return m_type < kTypeCount; }

// The value's bytes of the new block; null when there is no memory.
std::byte* VCMessage::addBlock(std::uint8_t code, std::size_t valueSize) {
    const bool fits = valueSize <= std::numeric_limits<std::uint32_t>::max() - kHeaderSize;
    const auto blockSize = static_cast<std::uint32_t>(kHeaderSize + valueSize);
    std::byte* const block = fits ? m_bytes.append(blockSize) : nullptr;
    if (!block) {
        NORVO_LOG_SUMMED_UP(Error, "Malloc failed, size: ", kHeaderSize + valueSize);
        return nullptr;
    }
    RecordHeader{RecordHeader::kBlockFlag, code, blockSize}.write(block);
    const std::uint32_t total = m_bytes.size();
    std::memcpy(block + blockSize - total + RecordHeader::kSizeOffset, &total, sizeof total);
    return block + kHeaderSize;
}

void VCMessage::addText(std::uint8_t code, const std::string& text) {
    std::byte* const value = addBlock(code, text.size());
    if (value && !text.empty()) std::memcpy(value, text.data(), text.size());
}

void VCMessage::addNumber(std::uint8_t code, unsigned int value) {
    if (std::byte* const to = addBlock(code, sizeof value)) std::memcpy(to, &value, sizeof value);
}

void VCMessage::addDataBlock(const std::shared_ptr<VCDataBlock>& block) {
    if (!block || !block->isValid()) return;
    std::byte* const value = addBlock(block->getType(), block->size() - kHeaderSize);
    if (value) std::memcpy(value - kHeaderSize, block->data(), block->size());
}

std::span<const std::byte> VCMessage::find(std::uint8_t code) const {
    const std::byte* const bytes = m_bytes.data();
    for (std::uint32_t offset = kHeaderSize; offset < m_bytes.size();) {
        const RecordHeader block = RecordHeader::read(bytes + offset);
        if (block.type == code) return {bytes + offset, block.size};
        offset += block.size;
    }
    return {};
}

std::string VCMessage::text(std::uint8_t code, std::string_view failure) const {
    const auto block = find(code);
    if (block.empty()) {
        NORVO_LOG(Warning, failure);
        return {};
    }
    const std::size_t size = block.size() - kHeaderSize;
    return {reinterpret_cast<const char*>(block.data()) + kHeaderSize,
            m_bytes.isBorrowed() ? std::min<std::size_t>(size, kLongestTextInPlace) : size};
}

unsigned int VCMessage::number(std::uint8_t code, std::string_view failure) const {
    const auto block = find(code);
    unsigned int value = 0;
    if (block.empty()) {
        NORVO_LOG(Warning, failure);
    } else if (block.size() == kHeaderSize + sizeof value) {
        std::memcpy(&value, block.data() + kHeaderSize, sizeof value);
    }
    return value;
}

void VCMessage::setUnsupportedMessageType(unsigned char type) {
    addNumber(UnsupportedMessageType, type);
}
unsigned char VCMessage::getUnsupportedMessageType() const {
    return static_cast<unsigned char>(number(UnsupportedMessageType, "getMessageType failed"));
}
bool VCMessage::hasUnsupportedMessageType() const { return !find(UnsupportedMessageType).empty(); }

void VCMessage::setStreamName(const std::string& name) { addText(StreamName, name); }
std::string VCMessage::getStreamName() const { return text(StreamName, "getStreamName failed"); }
bool VCMessage::hasStreamName() const { return !find(StreamName).empty(); }

void VCMessage::setStreamType(unsigned int type) { addNumber(StreamType, type); }
unsigned int VCMessage::getStreamType() const { return number(StreamType, "getStreamType failed"); }
bool VCMessage::hasStreamType() const { return !find(StreamType).empty(); }

void VCMessage::setStreamSize(unsigned int bytes) { addNumber(StreamSize, bytes); }
unsigned int VCMessage::getStreamSize() const { return number(StreamSize, "getStreamSize failed"); }
bool VCMessage::hasStreamSize() const { return !find(StreamSize).empty(); }

void VCMessage::setRouteData(const char* data, unsigned int length) {
    std::byte* const value = addBlock(RouteData, length);
    if (!value || length == 0) return;
    if (data) {
        std::memcpy(value, data, length);
    } else {
        std::memset(value, 0, length);
    }
}

MessageBytes VCMessage::wireBytesBefore(std::size_t length) const {
    constexpr std::size_t kLargest = std::numeric_limits<std::uint32_t>::max();
    MessageBytes bytes(m_bytes);
    const bool fits = length <= kLargest - kHeaderSize - bytes.size();
    std::byte* const block = fits ? bytes.append(kHeaderSize) : nullptr;
    if (!block) {
        NORVO_LOG(Error, "Malloc failed, size: ", kHeaderSize + length);
        return {};
    }
    const auto dataSize = static_cast<std::uint32_t>(length);
    RecordHeader{RecordHeader::kBlockFlag, RouteData, kHeaderSize + dataSize}.write(block);
    RecordHeader{RecordHeader::kMessageFlag, m_type, bytes.size() + dataSize}.write(bytes.own());
    return bytes;
}

unsigned int VCMessage::getRouteData(char** out) const {
    const auto block = find(RouteData);
    if (block.empty()) {
        NORVO_LOG(Warning, "getRouteData failed");
        return 0;
    }
    if (!out || block.size() <= kHeaderSize) return 0;
    *out = reinterpret_cast<char*>(const_cast<std::byte*>(block.data())) + kHeaderSize;
    return static_cast<unsigned int>(block.size()) - kHeaderSize;
}

bool VCMessage::hasRouteData() const { return !find(RouteData).empty(); }

void VCMessage::setSupportedStreams(const std::string& streams) {
    addText(SupportedStreams, streams);
}
std::string VCMessage::getSupportedStreams() const {
    return text(SupportedStreams, "getSupportedStreams failed");
}
bool VCMessage::hasSupportedStreams() const { return !find(SupportedStreams).empty(); }

void VCMessage::setChannelVersion(const std::string& version) { addText(ChannelVersion, version); }
std::string VCMessage::getChannelVersion() const {
    return text(ChannelVersion, "getVersion failed");
}
bool VCMessage::hasChannelVersion() const { return !find(ChannelVersion).empty(); }

void VCMessage::setInternalVersion(const std::string& version) {
    addText(InternalVersion, version);
}
std::string VCMessage::getInternalVersion() const {
    return text(InternalVersion, "getVersion failed");
}
bool VCMessage::hasInternalVersion() const { return !find(InternalVersion).empty(); }

void VCMessage::setClientVersion(const std::string& version) { addText(ClientVersion, version); }
std::string VCMessage::getClientVersion() const {
    return text(ClientVersion, "getClientVersion failed");
}
bool VCMessage::hasClientVersion() const { return !find(ClientVersion).empty(); }

bool VCMessage::serializeToArray(void* out, unsigned int size) const {
    if (!out || size == 0) return false;
    if (byteSize() > size) {
        NORVO_LOG(Error, "Buffer size is not enough.");
        return false;
    }
    std::memcpy(out, m_bytes.data(), byteSize());
    RecordHeader{RecordHeader::kMessageFlag, m_type, byteSize()}.write(out);
    return true;
}

bool VCMessage::verifyData(const void* data, unsigned int length) {
    if (!data || length < kHeaderSize) {
        NORVO_LOG_SUMMED_UP(Warning, "Wrong message received, size: ", length);
        return false;
    }
    const RecordHeader header = RecordHeader::read(data);
    if (header.flag != RecordHeader::kMessageFlag) {
        NORVO_LOG_SUMMED_UP(Warning, "Wrong message received, data flag not matched");
        return false;
    }
    if (header.size != length) {
        NORVO_LOG_SUMMED_UP(Warning, "Wrong message received. Actual message size ", header.size,
                            " != ", "received size ", length);
        return false;
    }
    return true;
}

bool VCMessage::parseFromArray(const void* data, unsigned int length) {
    return parse(data, length, Keep::Copy);
}

bool VCMessage::parseInPlace(const void* data, unsigned int length) {
    return parse(data, length, Keep::InPlace);
}

bool VCMessage::parse(const void* data, unsigned int length, Keep keep) {
    if (!verifyData(data, length)) {
        reset();
        return false;
    }
    const std::uint32_t end = endOfGoodBlocks(static_cast<const std::byte*>(data), length);
    const bool whole = end == length;
    m_type = RecordHeader::read(data).type;
    m_initialized = true;
    if (keep == Keep::InPlace) {
        m_bytes.borrow(data, end);
    } else if (m_bytes.assign(data, end)) {
        writeHeader();
    } else {
        NORVO_LOG_SUMMED_UP(Error, "Malloc failed, size: ", end);
        reset();
        return false;
    }
    if (!whole) NORVO_LOG_SUMMED_UP(Warning, "Parse error.");
    return whole;
}

}  // namespace VirtualChannelAgent
