#include "Conversions.h"

#include <charconv>
#include <cstdint>

namespace VDIFrameworkCommon {

namespace {

template <class Number>
Number wholeNumber(const std::string& text) {
    Number value{};
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end ? value : Number{};
}

}  // namespace

int toInt(const std::string& text) { return wholeNumber<int>(text); }

unsigned int toUnsignedInt(const std::string& text) { return wholeNumber<unsigned int>(text); }

void* toPointer(const std::string& text) {
    return reinterpret_cast<void*>(wholeNumber<std::intptr_t>(text));
}

std::string toString(const int& value) { return std::to_string(value); }

std::string toString(const unsigned int& value) { return std::to_string(value); }

bool endsWith(const std::string& text, const std::string& suffix) { return text.ends_with(suffix); }

}  // namespace VDIFrameworkCommon
