#include "StreamType.h"

#include <gtest/gtest.h>

using namespace VirtualChannelAgent;

TEST(StreamType, ConvertsBetweenTextsNumbersAndTheFarEndsView) {
    const StreamType types[] = {StreamType::READ, StreamType::WRITE};
    const std::string texts[] = {"READ", "WRITE"};
    for (const int i : {0, 1}) {
        EXPECT_EQ(utils::intToSType(i), types[i]);
        EXPECT_EQ(utils::STypeToString(types[i]), texts[i]);
        EXPECT_EQ(utils::StringToSType(texts[i]), types[i]);
        EXPECT_TRUE(utils::IsStreamTypeValid(types[i]) && utils::IsStreamTypeValid(texts[i]));
        EXPECT_EQ(utils::GetMirroredSType(types[i]), types[1 - i]);
        EXPECT_EQ(utils::GetMirroredSType(texts[i]), texts[1 - i]);
    }
    for (const int number : {2, -1, 0x7FFFFFFF}) {
        const auto raw = static_cast<StreamType>(number);
        EXPECT_EQ(utils::intToSType(number), StreamType::INVALID);
        EXPECT_FALSE(utils::IsStreamTypeValid(raw));
        EXPECT_EQ(utils::STypeToString(raw), "");
        EXPECT_EQ(utils::GetMirroredSType(raw), StreamType::INVALID);
    }
    for (const std::string text : {"", "read", "READ ", "READWRITE", "0"}) {
        EXPECT_EQ(utils::StringToSType(text), StreamType::INVALID) << text;
        EXPECT_FALSE(utils::IsStreamTypeValid(text));
        EXPECT_EQ(utils::GetMirroredSType(text), "");
    }
}

TEST(AgentUtils, SplitAtAnyOfTheDelimiters) {
    std::set<std::string> names{"left over"};
    utils::split(",b;a,;c;", names, ";,");
    EXPECT_EQ(names, (std::set<std::string>{"a", "b", "c"}));
    utils::split("---", names, "-");
    EXPECT_TRUE(names.empty());
    utils::split("a-b", names, "");
    EXPECT_EQ(names, std::set<std::string>{"a-b"});
}
