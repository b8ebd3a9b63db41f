// A stream's direction, and small helpers of the agent.
#pragma once

#include <set>
#include <string>

namespace VirtualChannelAgent {

// What the local side does with a stream. The far end of the same stream has the opposite
// direction. Travels as this number in agent messages and as "READ" or "WRITE" in INFO messages.
enum class StreamType : unsigned int { READ = 0, WRITE = 1, INVALID = 2 };

// Pure functions: any thread, no log. Every number and text that is not a direction is INVALID, and
// the text of INVALID is empty. Texts are compared whole and case-sensitively.
namespace utils {

std::string STypeToString(StreamType type);
StreamType StringToSType(const std::string& text);
StreamType intToSType(int value);
bool IsStreamTypeValid(StreamType type);
bool IsStreamTypeValid(const std::string& text);
// The direction of the far end.
StreamType GetMirroredSType(StreamType type);
std::string GetMirroredSType(const std::string& text);

// The calling process's ID in decimal.
std::string GetProcessId();

// Replaces `out` by the pieces of `text` between the characters of `delimiters`, each of which
// separates on its own. There are no empty pieces.
void split(const std::string& text, std::set<std::string>& out, const std::string& delimiters);

}  // namespace utils
}  // namespace VirtualChannelAgent
