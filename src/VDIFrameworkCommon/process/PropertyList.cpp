#include "PropertyList.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <utility>

namespace VDIFrameworkCommon {

namespace {

void appendUtf8(std::string& out, std::uint32_t code) {
    const auto tail = [&](unsigned shift) {
        out += static_cast<char>(0x80U | ((code >> shift) & 0x3fU));
    };
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xc0U | (code >> 6U));
        tail(0);
    } else if (code < 0x10000) {
        out += static_cast<char>(0xe0U | (code >> 12U));
        tail(6);
        tail(0);
    } else {
        out += static_cast<char>(0xf0U | (code >> 18U));
        tail(12);
        tail(6);
        tail(0);
    }
}

// `name` lacks its '&' and ';'. False when it is unknown.
bool appendEntity(std::string& out, std::string_view name) {
    static constexpr std::array<std::pair<std::string_view, char>, 5> kNamed{
        {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}}};
    for (const auto& [text, c] : kNamed) {
        if (name == text) {
            out += c;
            return true;
        }
    }
    if (!name.starts_with('#')) return false;
    name.remove_prefix(1);
    const bool hex = name.starts_with('x');
    if (hex) name.remove_prefix(1);
    std::uint32_t code = 0;
    const auto [end, error] =
        std::from_chars(name.data(), name.data() + name.size(), code, hex ? 16 : 10);
    if (error != std::errc() || end != name.data() + name.size() || code == 0 || code > 0x10ffff)
        return false;
    appendUtf8(out, code);
    return true;
}

// Including its ';'. Bounded, or a text of nothing but '&' would be searched to its end for each.
constexpr std::size_t kLongestEntity = 16;

std::string decoded(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const auto entity = text.find('&');
        out += text.substr(0, entity);
        if (entity == std::string_view::npos) break;
        text.remove_prefix(entity + 1);
        const auto end = text.substr(0, kLongestEntity).find(';');
        if (end != std::string_view::npos && appendEntity(out, text.substr(0, end))) {
            text.remove_prefix(end + 1);
        } else {
            out += '&';
        }
    }
    return out;
}

// Reads tags and the text between them; skips comments, declarations and instructions.
class TagReader {
public:
    explicit TagReader(std::string_view rest) : m_rest(rest) {}

    std::string_view name;  // of the tag that next() has read
    std::string text;       // between the previous tag and this one
    bool opens = false;
    bool closes = false;

    // False at the end, or where the text is not well-formed.
    bool next() {
        text.clear();
        for (;;) {
            const auto tag = m_rest.find('<');
            if (tag == std::string_view::npos) return false;
            text += decoded(m_rest.substr(0, tag));
            m_rest.remove_prefix(tag + 1);
            if (m_rest.starts_with("!--")) {
                if (!skipPast("-->")) return false;
            } else if (m_rest.starts_with('?') || m_rest.starts_with('!')) {
                if (!skipPast(">")) return false;
            } else {
                return readTag();
            }
        }
    }

private:
    bool skipPast(std::string_view mark) {
        const auto at = m_rest.find(mark);
        if (at == std::string_view::npos) return false;
        m_rest.remove_prefix(at + mark.size());
        return true;
    }

    bool readTag() {
        const auto end = m_rest.find('>');
        if (end == std::string_view::npos) return false;
        name = m_rest.substr(0, end);
        m_rest.remove_prefix(end + 1);
        opens = !name.starts_with('/');
        closes = !opens || name.ends_with('/');
        if (!opens) name.remove_prefix(1);
        name = name.substr(0, name.find_first_of(" \t\r\n/"));
        return true;
    }

    std::string_view m_rest;
};

}  // namespace

std::string propertyListString(std::string_view xml, std::string_view key) {
    constexpr int kEntryDepth = 3;  // plist, dict, entry
    TagReader tag(xml);
    bool keyFound = false;
    for (int depth = 0; tag.next();) {
        if (tag.opens) ++depth;
        if (!tag.closes) continue;
        if (depth == kEntryDepth) {
            const std::string content = tag.opens ? std::string() : tag.text;
            if (keyFound) return tag.name == "string" ? content : std::string();
            keyFound = tag.name == "key" && content == key;
        }
        --depth;
    }
    return {};
}

}  // namespace VDIFrameworkCommon
