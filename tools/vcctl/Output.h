// Standard output: what is printed arrives at the latest with flushOut(). Both throw CommandError.
#pragma once

#include <string>
#include <string_view>

namespace vcctl {

void print(std::string_view text);
void flushOut();

// Printable ASCII as it is, other bytes as \xHH, so that nothing from elsewhere steers the terminal
// or breaks a line; "..." where there is more than `most` bytes.
std::string readable(std::string_view bytes, std::size_t most = std::string_view::npos);

}  // namespace vcctl
