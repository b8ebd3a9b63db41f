#include "VCDataBlock.h"

#include <cstring>
#include <limits>

#include "Log.h"

namespace VirtualChannelAgent {

using VDIFrameworkCommon::SharedBytes;

VCDataBlock::VCDataBlock(unsigned char type, const std::string& text) {
    build(type, text.data(), text.size());
}

VCDataBlock::VCDataBlock(unsigned char type, unsigned int value) {
    build(type, &value, sizeof value);
}

VCDataBlock::VCDataBlock(unsigned char type, const char* bytes, unsigned int length) {
    build(type, bytes, length);
}

VCDataBlock::VCDataBlock(unsigned char type, const std::vector<unsigned int>& values) {
    build(type, values.data(), values.size() * sizeof(unsigned int));
}

VCDataBlock::VCDataBlock(const char* raw, unsigned int length) {
    if (!verifyData(raw, length)) return;
    const RecordHeader header = RecordHeader::read(raw);
    build(header.type, raw + RecordHeader::kSize, length - RecordHeader::kSize);
    // Keeps the reserved bytes of a received block.
    if (m_pBuffer) std::memcpy(m_pBuffer.data(), raw, RecordHeader::kSize);
}

void VCDataBlock::build(unsigned char type, const void* value, std::size_t length) {
    const bool fits = length <= std::numeric_limits<std::uint32_t>::max() - RecordHeader::kSize;
    if (fits) m_pBuffer = SharedBytes::allocate(RecordHeader::kSize + length);
    if (!m_pBuffer) {
        NORVO_LOG(Error, "Malloc failed, size: ", RecordHeader::kSize + length);
        return;
    }
    m_header = {RecordHeader::kBlockFlag, type,
                RecordHeader::kSize + static_cast<std::uint32_t>(length)};
    m_header.write(m_pBuffer.data());
    std::byte* const to = m_pBuffer.data() + RecordHeader::kSize;
    if (value && length > 0) {
        std::memcpy(to, value, length);
    } else {
        std::memset(to, 0, length);
    }
}

bool VCDataBlock::verifyData(const void* raw, unsigned int length) {
    if (!raw || length < RecordHeader::kSize) return false;
    const RecordHeader header = RecordHeader::read(raw);
    return header.flag == RecordHeader::kBlockFlag && header.size == length;
}

bool VCDataBlock::isValid() const {
    return m_pBuffer && m_header.size >= RecordHeader::kSize &&
           m_header.flag == RecordHeader::kBlockFlag;
}

const char* VCDataBlock::data() const {
    return m_pBuffer ? reinterpret_cast<const char*>(m_pBuffer.data()) : nullptr;
}

unsigned int VCDataBlock::size() const { return m_pBuffer ? m_header.size : 0; }

unsigned char VCDataBlock::getType() const { return isValid() ? m_header.type : 0; }

std::string VCDataBlock::getStrData() const {
    char* value = nullptr;
    const unsigned int length = getByteData(&value);
    return length > 0 ? std::string(value, length) : std::string();
}

unsigned int VCDataBlock::getIntData() const {
    unsigned int value = 0;
    char* bytes = nullptr;
    if (getByteData(&bytes) == sizeof value) std::memcpy(&value, bytes, sizeof value);
    return value;
}

unsigned int VCDataBlock::getByteData(char** out) const {
    if (!out || size() <= RecordHeader::kSize) return 0;
    *out = reinterpret_cast<char*>(m_pBuffer.data()) + RecordHeader::kSize;
    return m_header.size - RecordHeader::kSize;
}

void VCDataBlock::clear() { m_pBuffer = SharedBytes(); }

}  // namespace VirtualChannelAgent
