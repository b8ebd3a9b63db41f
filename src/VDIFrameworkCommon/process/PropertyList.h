#pragma once

#include <string>
#include <string_view>

namespace VDIFrameworkCommon {

// The text of the <string> that follows <key>`key`</key> in the outermost dictionary of a property
// list in XML form, with its entities resolved; empty when there is none. Any text is accepted:
// malformed XML ends the search. (A property list in binary form has no such key.)
std::string propertyListString(std::string_view xml, std::string_view key);

}  // namespace VDIFrameworkCommon
