#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>

#include "Conversions.h"
#include "MessageBuilder.h"
#include "MessageParser.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using VDIFrameworkCommon::MessageBuilder;
using VDIFrameworkCommon::MessageParser;

namespace {

std::vector<std::string> parsed(const std::string& text) { return MessageParser(text).parseMsg(); }

}  // namespace

TEST(MessageText, FieldsOfEveryTypeHaveTheirForm) {
    MessageBuilder builder;
    builder.append("ChannelUp").append(4294967295U).append(true).append(false);
    builder.append(reinterpret_cast<void*>(static_cast<std::intptr_t>(-2)))
        .append(static_cast<void*>(nullptr))
        .append(std::string());
    EXPECT_EQ(builder.msg(), "ChannelUp|4294967295|1|0|-2|0|");
}

TEST(MessageText, SeparatorsInsideFieldsAreEscaped) {
    MessageBuilder builder;
    builder.append(std::string("a|b")).append(std::string("c\\")).append("\\|");
    EXPECT_EQ(builder.msg(), R"(a\|b|c\\|\\\|)");
    EXPECT_THAT(parsed(builder.msg()), ElementsAre("a|b", "c\\", "\\|"));
}

TEST(MessageText, EmptyFieldsStayFields) {
    MessageBuilder builder;
    builder.append("").append("").append("x").append("");
    EXPECT_THAT(parsed(builder.msg()), ElementsAre("", "", "x", ""));
    EXPECT_THAT(parsed(MessageBuilder().append("").msg()), ElementsAre(""));
    EXPECT_THAT(parsed(""), ElementsAre(""));
}

TEST(MessageText, AnyTextIsSomeListOfFields) {
    EXPECT_THAT(parsed("a\\"), ElementsAre("a\\"));
    EXPECT_THAT(parsed("\\a|\\"), ElementsAre("a", "\\"));
    EXPECT_THAT(parsed("||"), ElementsAre("", "", ""));
}

TEST(MessageText, AnyFieldsComeBackAsTheyWere) {
    std::mt19937 random(7);
    const auto upTo = [&](unsigned bound) { return random() % (bound + 1); };
    for (int round = 0; round < 2000; ++round) {
        std::vector<std::string> fields(1 + upTo(6));
        MessageBuilder builder;
        for (auto& field : fields) {
            field.resize(upTo(12));
            for (char& c : field) {
                c = upTo(2) != 0 ? "|\\\n\0a"[upTo(4)] : static_cast<char>(upTo(255));
            }
            builder.append(field);
        }
        ASSERT_THAT(parsed(builder.msg()), ElementsAreArray(fields)) << builder.msg();
    }
}

TEST(Conversions, OnlyAWholeNumberInRangeIsANumber) {
    using VDIFrameworkCommon::toInt;
    using VDIFrameworkCommon::toPointer;
    using VDIFrameworkCommon::toUnsignedInt;
    EXPECT_EQ(toInt("2147483647"), 2147483647);
    EXPECT_EQ(toInt("-2147483648"), -2147483647 - 1);
    EXPECT_EQ(toUnsignedInt("4294967295"), 4294967295U);
    EXPECT_EQ(toPointer("-2"), reinterpret_cast<void*>(static_cast<std::intptr_t>(-2)));
    for (const char* text : {"", " 1", "1 ", "+1", "1x", "0x10", "2147483648", "-2147483649", "--1",
                             "99999999999999999999"}) {
        EXPECT_EQ(toInt(text), 0) << text;
    }
    for (const char* text : {"-1", "4294967296", "1.0", "x"}) {
        EXPECT_EQ(toUnsignedInt(text), 0U) << text;
    }
    EXPECT_EQ(toInt(std::string("1\0", 2)), 0);
    EXPECT_EQ(toPointer("99999999999999999999"), nullptr);
}

TEST(Conversions, NumbersBecomeDecimalText) {
    EXPECT_EQ(VDIFrameworkCommon::toString(-2147483647 - 1), "-2147483648");
    EXPECT_EQ(VDIFrameworkCommon::toString(4294967295U), "4294967295");
}

TEST(Conversions, ASuffixIsAtTheEnd) {
    using VDIFrameworkCommon::endsWith;
    EXPECT_TRUE(endsWith("Media_READ", "_READ"));
    EXPECT_TRUE(endsWith("Media", ""));
    EXPECT_FALSE(endsWith("READ_x", "READ"));
    EXPECT_FALSE(endsWith("AD", "READ"));
}
