#pragma once

#include <string>

namespace VDIFrameworkCommon {

// Decimal text to number: 0 for text that is not wholly a number in the type's range.
int toInt(const std::string& text);
unsigned int toUnsignedInt(const std::string& text);
// The same for a pointer in MessageBuilder's form (signed decimal): null when it is not one.
void* toPointer(const std::string& text);

std::string toString(const int& value);
std::string toString(const unsigned int& value);

bool endsWith(const std::string& text, const std::string& suffix);

}  // namespace VDIFrameworkCommon
