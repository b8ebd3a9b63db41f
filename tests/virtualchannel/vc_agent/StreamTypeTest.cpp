#include "StreamType.h"

#include <gtest/gtest.h>

using namespace VirtualChannelAgent;
using namespace VirtualChannelAgent::utils;

TEST(StreamType, ConvertsBetweenTextsNumbersAndTheFarEndsView) {
    const std::tuple<int, StreamType, std::string, StreamType> cases[] = {
        {0, StreamType::READ, "READ", StreamType::WRITE},
        {1, StreamType::WRITE, "WRITE", StreamType::READ},
        {2, StreamType::INVALID, "", StreamType::INVALID},
        {-1, StreamType::INVALID, "", StreamType::INVALID},
    };
    for (const auto& [number, type, text, mirrored] : cases) {
        EXPECT_EQ(intToSType(number), type);
        EXPECT_EQ(STypeToString(static_cast<StreamType>(number)), text);
        EXPECT_EQ(StringToSType(text), type);
        EXPECT_EQ(GetMirroredSType(type), mirrored);
        EXPECT_EQ(GetMirroredSType(text), STypeToString(mirrored));
        EXPECT_EQ(IsStreamTypeValid(static_cast<StreamType>(number)), !text.empty());
        EXPECT_EQ(IsStreamTypeValid(text), !text.empty());
    }
    for (const std::string text : {"read", "READ ", "READWRITE", "0"})
        EXPECT_EQ(StringToSType(text), StreamType::INVALID) << text;
}

TEST(AgentUtils, SplitAtAnyOfTheDelimiters) {
    using Names = std::set<std::string>;
    Names names{"left over"};
    split(",b;a,;c;", names, ";,");
    EXPECT_EQ(names, (Names{"a", "b", "c"}));
    split("a-b", names, "");
    EXPECT_EQ(names, Names{"a-b"});
}
