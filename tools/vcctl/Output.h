// Buffered standard output, written at the latest by flushOut(). Both throw CommandError.
#pragma once

#include <string>
#include <string_view>

namespace vcctl {

void print(std::string_view text);
void flushOut();

// Printable ASCII as is, other bytes as \xHH, so that foreign text cannot control the terminal
// or break a line; "..." if there are more than `most` bytes.
std::string readable(std::string_view bytes, std::size_t most = std::string_view::npos);

}  // namespace vcctl
