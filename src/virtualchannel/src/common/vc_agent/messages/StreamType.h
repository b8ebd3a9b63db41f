// A stream's direction, and small helpers for the agent.
#pragma once

#include <set>
#include <string>

namespace VirtualChannelAgent {

// What the local side does with a stream. The peer's end has the opposite direction. Sent as this
// number in agent messages and as "READ" or "WRITE" in INFO messages.
enum class StreamType : unsigned int { READ = 0, WRITE = 1, INVALID = 2 };

// Pure functions: any thread, no log. Any other number or text is INVALID, and the text of INVALID
// is empty. Texts are compared in full and case-sensitively.
namespace utils {

std::string STypeToString(StreamType type);
StreamType StringToSType(const std::string& text);
StreamType intToSType(int value);
bool IsStreamTypeValid(StreamType type);
bool IsStreamTypeValid(const std::string& text);
// The direction of the peer's end.
StreamType GetMirroredSType(StreamType type);
std::string GetMirroredSType(const std::string& text);

// The calling process's ID in decimal.
std::string GetProcessId();

// Replaces `out` by the pieces of `text` between characters of `delimiters`. Empty pieces are left
// out.
void split(const std::string& text, std::set<std::string>& out, const std::string& delimiters);

}  // namespace utils
}  // namespace VirtualChannelAgent
