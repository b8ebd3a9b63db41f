#include "MessageParser.h"

namespace VDIFrameworkCommon {

std::vector<std::string> MessageParser::parseMsg() const {
    std::vector<std::string> fields(1);
    for (std::size_t at = 0; at < m_text.size(); ++at) {
        const char c = m_text[at];
        if (c == '|') {
            fields.emplace_back();
        } else if (c == '\\' && at + 1 < m_text.size()) {
            fields.back() += m_text[++at];
        } else {
            fields.back() += c;
        }
    }
    return fields;
}

}  // namespace VDIFrameworkCommon
