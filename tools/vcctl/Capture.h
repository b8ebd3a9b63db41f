// A capture of a session's packets: a pcapng file (draft-ietf-opsawg-pcapng) that Wireshark opens,
// with one interface of link type USER0 (147), nanosecond times, and the direction of each packet
// in its flags option.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "File.h"

namespace vcctl {

enum class Direction : std::uint32_t { Inbound = 1, Outbound = 2 };

struct CapturedPacket {
    Direction direction;
    std::uint64_t nanoseconds;  // since the Unix epoch
    std::vector<unsigned char> bytes;
};

// Thread-safe. Each packet is in the file at once, so a capture can be read while it grows and
// outlives its host. A failed write (disk full) stops the capture, is reported once on standard
// error, and does not disturb the session.
class CaptureWriter {
public:
    // Throws CommandError when the file cannot be created. `interfaceName` goes into the file.
    CaptureWriter(const std::string& path, const std::string& interfaceName);
    ~CaptureWriter();

    void write(Direction direction, const void* packet, std::uint32_t length);

private:
    bool writeBlock(std::uint32_t type, const std::string& body);

    const std::string m_path;
    std::mutex m_mutex;
    File m_file;
    bool m_failed = false;
};

// Reads what CaptureWriter wrote (in other pcapng files, assumes its link type and time unit).
class CaptureReader {
public:
    // `path` "-" is standard input. Throws CommandError when it cannot be read or is not pcapng.
    explicit CaptureReader(const std::string& path);

    // The next packet; empty at the end. Throws CommandError on a damaged file.
    std::optional<CapturedPacket> next();

private:
    bool readBlock(std::uint32_t& type, std::vector<unsigned char>& body);

    const std::string m_name;
    File m_owned;
    std::FILE* m_file;
};

}  // namespace vcctl
