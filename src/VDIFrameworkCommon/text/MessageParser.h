#pragma once

#include <string>
#include <vector>

namespace VDIFrameworkCommon {

// Splits a text built by MessageBuilder into its fields. Never fails: every text is some list of
// fields, and an empty text is one empty field.
class MessageParser {
public:
    explicit MessageParser(std::string text) : m_text(std::move(text)) {}
    std::vector<std::string> parseMsg() const;

private:
    std::string m_text;
};

}  // namespace VDIFrameworkCommon
