#include "MessageBuilder.h"

#include <cstdint>

namespace VDIFrameworkCommon {

MessageBuilder& MessageBuilder::append(const std::string& field) {
    if (!m_empty) m_text += '|';
    m_empty = false;
    if (field.find_first_of("|\\") == std::string::npos) {
        m_text += field;
        return *this;
    }
    for (const char c : field) {
        if (c == '|' || c == '\\') m_text += '\\';
        m_text += c;
    }
    return *this;
}

MessageBuilder& MessageBuilder::append(const char* field) {
    return append(std::string(field ? field : ""));
}

MessageBuilder& MessageBuilder::append(unsigned int value) { return append(std::to_string(value)); }

MessageBuilder& MessageBuilder::append(bool value) {
    return append(std::string(1, value ? '1' : '0'));
}

MessageBuilder& MessageBuilder::append(void* value) {
    return append(std::to_string(reinterpret_cast<std::intptr_t>(value)));
}

}  // namespace VDIFrameworkCommon
