#include "StreamType.h"

#include <gtest/gtest.h>

using namespace VirtualChannelAgent;

TEST(StreamType, ConvertsBetweenTextsNumbersAndTheFarEndsView) {
    const std::tuple<int, StreamType, std::string> types[] = {{0, StreamType::READ, "READ"},
                                                              {1, StreamType::WRITE, "WRITE"}};
    for (const auto& [number, type, text] : types) {
        EXPECT_EQ(utils::intToSType(number), type);
        EXPECT_EQ(utils::STypeToString(type), text);
        EXPECT_EQ(utils::StringToSType(text), type);
        EXPECT_TRUE(utils::IsStreamTypeValid(type) && utils::IsStreamTypeValid(text));
        const auto& [farNumber, farType, farText] = types[1 - number];
        EXPECT_EQ(utils::GetMirroredSType(type), farType);
        EXPECT_EQ(utils::GetMirroredSType(text), farText);
    }
    for (const int number : {2, -1, 0x7FFFFFFF}) {
        const auto raw = static_cast<StreamType>(number);
        EXPECT_EQ(utils::intToSType(number), StreamType::INVALID);
        EXPECT_FALSE(utils::IsStreamTypeValid(raw));
        EXPECT_EQ(utils::STypeToString(raw), "");
        EXPECT_EQ(utils::GetMirroredSType(raw), StreamType::INVALID);
    }
    for (const std::string text : {"", "read", "READ ", " WRITE", "READWRITE", "0"}) {
        EXPECT_EQ(utils::StringToSType(text), StreamType::INVALID) << text;
        EXPECT_FALSE(utils::IsStreamTypeValid(text));
        EXPECT_EQ(utils::GetMirroredSType(text), "");
    }
}

TEST(AgentUtils, SplitAtAnyOfTheDelimiters) {
    using Names = std::set<std::string>;
    const std::tuple<std::string, std::string, Names> cases[] = {
        {"Basic--Media-Basic", "-", {"Basic", "Media"}},
        {",b;a,;c;", ";,", {"a", "b", "c"}},
        {"one", "-", {"one"}},
        {"---", "-", {}},
        {"", "-", {}},
        {"a-b", "", {"a-b"}}};
    for (const auto& [text, delimiters, expected] : cases) {
        Names names{"left over"};
        utils::split(text, names, delimiters);
        EXPECT_EQ(names, expected) << text;
    }
}
