// One typed field of an agent message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "RecordHeader.h"
#include "SharedBytes.h"

namespace VirtualChannelAgent {

// One block: header and value in its own heap buffer. A block that cannot be built or parsed is
// invalid: its accessors return 0, empty or null. Not synchronised.
class VCDataBlock {
public:
    VCDataBlock() = default;
    // From a value. Text has no terminator and no length prefix. Null `bytes` with a length stand
    // for that many zeros. Integers are 4 bytes each, without a count. Logs when there is no memory
    // for the block, or when its size does not fit 32 bits.
    VCDataBlock(unsigned char type, const std::string& text);
    VCDataBlock(unsigned char type, unsigned int value);
    VCDataBlock(unsigned char type, const char* bytes, unsigned int length);
    VCDataBlock(unsigned char type, const std::vector<unsigned int>& values);
    // From one received block of exactly `length` bytes, which are copied.
    VCDataBlock(const char* raw, unsigned int length);

    VCDataBlock(const VCDataBlock&) = delete;
    VCDataBlock& operator=(const VCDataBlock&) = delete;

    // Whether these bytes are exactly one block.
    static bool verifyData(const void* raw, unsigned int length);
    // The checksum of a message's blocks: there is none, the result is always 0.
    static constexpr unsigned short calcCheckSum(const unsigned short* /*data*/, int /*length*/) {
        return 0;
    }

    bool isValid() const;
    // The serialised block, and its size including the header.
    const char* data() const;
    unsigned int size() const;

    unsigned char getType() const;
    // The value as text, whatever it was built from.
    std::string getStrData() const;
    // The value when it is 4 bytes long, else 0.
    unsigned int getIntData() const;
    // Points `out` at the value, which the block keeps, and returns its length. Returns 0 and
    // leaves `out` unchanged when `out` is null or the value is empty.
    unsigned int getByteData(char** out) const;

    void clear();

private:
    void build(unsigned char type, const void* value, std::size_t length);

    RecordHeader m_header;
    VDIFrameworkCommon::SharedBytes m_pBuffer;
};

}  // namespace VirtualChannelAgent
