#include "Conversions.h"
#include "MessageBuilder.h"
#include "MessageParser.h"
#include "TestSupport.h"

using namespace VDIFrameworkCommon;
using Fields = std::vector<std::string>;

TEST(MessageText, FieldsOfEveryTypeHaveTheirForm) {
    MessageBuilder builder;
    builder.append("ChannelUp").append(4294967295U).append(true).append(false);
    builder.append(reinterpret_cast<void*>(static_cast<std::intptr_t>(-2)))
        .append(static_cast<void*>(nullptr))
        .append("")
        .append(std::string("a|b\\"));
    EXPECT_EQ(builder.msg(), R"(ChannelUp|4294967295|1|0|-2|0||a\|b\\)");
}

TEST(MessageText, AnyTextParsesAsFields) {
    const std::pair<const char*, Fields> cases[] = {
        {"", {""}}, {"a\\", {"a\\"}}, {"\\a|\\", {"a", "\\"}}, {"||", {"", "", ""}}};
    for (const auto& [text, fields] : cases) EXPECT_EQ(MessageParser(text).parseMsg(), fields);
}

TEST(MessageText, AnyFieldsComeBackAsTheyWere) {
    std::mt19937 random(7);
    const auto upTo = [&](unsigned bound) { return random() % (bound + 1); };
    for (int round = 0; round < 2000; ++round) {
        Fields fields(1 + upTo(6));
        MessageBuilder builder;
        for (auto& field : fields) {
            field.resize(upTo(12));
            for (char& c : field)
                c = upTo(2) != 0 ? "|\\\n\0a"[upTo(4)] : static_cast<char>(upTo(255));
            builder.append(field);
        }
        ASSERT_EQ(MessageParser(builder.msg()).parseMsg(), fields) << builder.msg();
    }
}

TEST(Conversions, OnlyAWholeNumberInRangeIsANumber) {
    EXPECT_EQ(toInt("2147483647"), 2147483647);
    EXPECT_EQ(toInt("-2147483648"), -2147483647 - 1);
    EXPECT_EQ(toUnsignedInt("4294967295"), 4294967295U);
    EXPECT_EQ(toPointer("-2"), reinterpret_cast<void*>(static_cast<std::intptr_t>(-2)));
    for (const char* text : {"", " 1", "1 ", "+1", "1x", "0x10", "2147483648", "-2147483649", "--1",
                             "99999999999999999999"})
        EXPECT_EQ(toInt(text), 0) << text;
    EXPECT_EQ(toInt(std::string("1\0", 2)), 0);
    for (const char* text : {"-1", "4294967296", "1.0", "x"})
        EXPECT_EQ(toUnsignedInt(text), 0U) << text;
    EXPECT_EQ(toPointer("99999999999999999999"), nullptr);
}
