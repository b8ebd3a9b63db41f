#pragma once

#include <string>

namespace VDIFrameworkCommon {

// Builds the text of one INFO message: its fields joined by '|', with '\' before a '|' or '\'
// inside a field. MessageParser is the inverse.
class MessageBuilder {
public:
    MessageBuilder& append(const std::string& field);
    // Without this, a literal would become a bool.
    MessageBuilder& append(const char* field);
    MessageBuilder& append(unsigned int value);  // decimal
    MessageBuilder& append(bool value);          // "1" or "0"
    MessageBuilder& append(void* value);         // signed decimal

    const std::string& msg() const { return m_text; }

private:
    std::string m_text;
    bool m_empty = true;
};

}  // namespace VDIFrameworkCommon
