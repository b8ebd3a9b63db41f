#include "VCDataBlock.h"

#include <gtest/gtest.h>

#include "LogCapture.h"

using VirtualChannelAgent::VCDataBlock;

namespace {

std::string bytesOf(const VCDataBlock& block) { return {block.data(), block.size()}; }

// A block as it goes on the wire; `size` is what its size field says.
std::string wire(unsigned char type, unsigned int size, const std::string& value) {
    std::string bytes("\xCD\xCD\0\0", 4);
    bytes += static_cast<char>(type);
    for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(size >> shift);
    return bytes + std::string(11, '\0') + value;
}

void expectInvalid(const VCDataBlock& block) {
    EXPECT_FALSE(block.isValid());
    EXPECT_EQ(block.data(), nullptr);
    EXPECT_EQ(block.size() + block.getType() + block.getIntData(), 0u);
    EXPECT_EQ(block.getStrData(), "");
}

}  // namespace

TEST(VCDataBlock, HasTheBytesOfTheFormat) {
    EXPECT_EQ(bytesOf(VCDataBlock(2, std::string("Basic"))), wire(2, 25, "Basic"));
    EXPECT_EQ(bytesOf(VCDataBlock(3, 0x01020304u)), wire(3, 24, "\x04\x03\x02\x01"));
    EXPECT_EQ(bytesOf(VCDataBlock(5, "\0x", 2)), wire(5, 22, std::string("\0x", 2)));
    EXPECT_EQ(bytesOf(VCDataBlock(5, nullptr, 3u)), wire(5, 23, std::string(3, '\0')));
    EXPECT_EQ(bytesOf(VCDataBlock(5, "abc", 0u)), wire(5, 20, ""));
    EXPECT_EQ(bytesOf(VCDataBlock(9, std::vector<unsigned int>{1, 0xFF000000})),
              wire(9, 28, std::string("\x01\0\0\0\0\0\0\xFF", 8)));
}

TEST(VCDataBlock, GivesItsValueBack) {
    std::string received = wire(2, 24, "four");
    received[15] = 'r';  // reserved bytes may hold anything, and are kept
    const VCDataBlock text(received.data(), 24u);
    EXPECT_EQ(bytesOf(text), received);
    EXPECT_EQ(text.getType(), 2);
    EXPECT_EQ(text.getStrData(), "four");
    EXPECT_EQ(text.getIntData(), 0x72756F66u);  // "four" as an integer
    EXPECT_EQ(VCDataBlock(2, std::string("fives")).getIntData(), 0u);
    char* value = nullptr;
    EXPECT_EQ(text.getByteData(&value), 4u);
    EXPECT_EQ(value, text.data() + 20);
    EXPECT_EQ(text.getByteData(nullptr), 0u);

    const VCDataBlock empty(2, std::string());
    EXPECT_TRUE(empty.isValid());
    EXPECT_EQ(empty.getByteData(&value), 0u);
    EXPECT_EQ(value, text.data() + 20);
}

TEST(VCDataBlock, IsInvalidWhenItIsNotABlock) {
    const std::string good = wire(2, 25, "Basic");
    std::string otherFlag = good;
    otherFlag[0] = otherFlag[1] = '\xCB';
    const std::pair<std::string, unsigned int> cases[] = {
        {good, 24u},
        {good + "!", 26u},
        {otherFlag, 25u},
        {wire(2, 26, "Basic"), 25u},
        {wire(2, 0, ""), 20u},
        {wire(2, 19, ""), 19u},
        {"", 0u},
    };
    for (const auto& [bytes, length] : cases) {
        EXPECT_FALSE(VCDataBlock::verifyData(bytes.data(), length));
        expectInvalid(VCDataBlock(bytes.data(), length));
    }
    expectInvalid(VCDataBlock(static_cast<const char*>(nullptr), 25u));
    VCDataBlock block(2, std::string("Basic"));
    block.clear();
    expectInvalid(block);
    const testsupport::LogCapture log;
    expectInvalid(VCDataBlock(5, nullptr, 0xFFFFFFF0u));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Malloc failed, size: 4294967300"});
}
