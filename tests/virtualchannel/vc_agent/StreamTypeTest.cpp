#include "StreamType.h"

#include <gmock/gmock.h>
#include <unistd.h>

using namespace VirtualChannelAgent;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(StreamType, ConvertsToAndFromTextAndNumbers) {
    for (const auto& [number, type, text] :
         {std::tuple{0, StreamType::READ, "READ"}, {1, StreamType::WRITE, "WRITE"}}) {
        EXPECT_EQ(static_cast<int>(type), number);
        EXPECT_EQ(utils::intToSType(number), type);
        EXPECT_EQ(utils::STypeToString(type), text);
        EXPECT_EQ(utils::StringToSType(text), type);
        EXPECT_TRUE(utils::IsStreamTypeValid(type));
        EXPECT_TRUE(utils::IsStreamTypeValid(std::string(text)));
    }
}

TEST(StreamType, IsInvalidForEverythingElse) {
    for (const int number : {2, 3, -1, 0x7FFFFFFF})
        EXPECT_EQ(utils::intToSType(number), StreamType::INVALID);
    for (const char* text : {"", "read", "READ ", " WRITE", "READWRITE", "0"}) {
        EXPECT_EQ(utils::StringToSType(text), StreamType::INVALID) << text;
        EXPECT_FALSE(utils::IsStreamTypeValid(std::string(text)));
        EXPECT_EQ(utils::GetMirroredSType(std::string(text)), "");
    }
    for (const unsigned int raw : {2u, 0xFFFFFFFFu}) {
        const auto type = static_cast<StreamType>(raw);
        EXPECT_FALSE(utils::IsStreamTypeValid(type));
        EXPECT_EQ(utils::STypeToString(type), "");
        EXPECT_EQ(utils::GetMirroredSType(type), StreamType::INVALID);
    }
}

TEST(StreamType, IsTheOppositeAtTheFarEnd) {
    EXPECT_EQ(utils::GetMirroredSType(StreamType::READ), StreamType::WRITE);
    EXPECT_EQ(utils::GetMirroredSType(StreamType::WRITE), StreamType::READ);
    EXPECT_EQ(utils::GetMirroredSType(std::string("READ")), "WRITE");
    EXPECT_EQ(utils::GetMirroredSType(std::string("WRITE")), "READ");
}

TEST(AgentUtils, SplitAtAnyOfTheDelimiters) {
    std::set<std::string> names{"left over"};
    utils::split("Basic--Media-Basic", names, "-");
    EXPECT_THAT(names, ElementsAre("Basic", "Media"));
    utils::split(",b;a,;c;", names, ";,");
    EXPECT_THAT(names, ElementsAre("a", "b", "c"));
    utils::split("one", names, "-");
    EXPECT_THAT(names, ElementsAre("one"));
    utils::split("---", names, "-");
    EXPECT_THAT(names, IsEmpty());
    names = {"left over"};
    utils::split("", names, "-");
    EXPECT_THAT(names, IsEmpty());
    utils::split("a-b", names, "");
    EXPECT_THAT(names, ElementsAre("a-b"));
}

TEST(AgentUtils, GiveTheProcessIdAsText) {
    EXPECT_EQ(utils::GetProcessId(), std::to_string(getpid()));
}
