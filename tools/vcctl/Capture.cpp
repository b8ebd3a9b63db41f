#include "Capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "CommandError.h"
#include "Descriptor.h"

namespace vcctl {

namespace {

constexpr std::uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr std::uint32_t kInterface = 1;
constexpr std::uint32_t kEnhancedPacket = 6;
constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr std::uint16_t kLinkTypeUser0 = 147;
constexpr std::uint32_t kMostBlock = 16u << 20;

enum Option : std::uint16_t { kEnd = 0, kInterfaceName = 2, kPacketFlags = 2, kTimeResolution = 9 };

template <class Number>
void put(std::string& out, Number value) {
    out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void pad(std::string& out) { out.append((4 - out.size() % 4) % 4, '\0'); }

void putOption(std::string& out, std::uint16_t code, std::string_view value) {
    put(out, code);
    put(out, static_cast<std::uint16_t>(value.size()));
    out += value;
    pad(out);
}

template <class Number>
Number numberAt(const std::vector<unsigned char>& bytes, std::size_t offset) {
    Number value{};
    if (offset + sizeof value <= bytes.size()) {
        std::memcpy(&value, bytes.data() + offset, sizeof value);
    }
    return value;
}

std::uint32_t flagsOf(const std::vector<unsigned char>& body, std::size_t offset) {
    while (offset + 4 <= body.size()) {
        const auto code = numberAt<std::uint16_t>(body, offset);
        const auto length = numberAt<std::uint16_t>(body, offset + 2);
        if (code == kEnd) break;
        if (code == kPacketFlags && length == 4) return numberAt<std::uint32_t>(body, offset + 4);
        offset += 4 + (length + 3u) / 4u * 4u;
    }
    return 0;
}

// A capture holds all channel traffic: only the owner may read it, even if the file existed with
// other permissions. Null, with errno set, when it cannot be created.
std::FILE* openPrivately(const std::string& path) {
    support::Descriptor fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) return nullptr;
    if (S_ISREG(status.st_mode) && (fchmod(fd.get(), 0600) != 0 || ftruncate(fd.get(), 0) != 0))
        return nullptr;
    std::FILE* file = fdopen(fd.get(), "wb");
    if (file) fd.release();
    return file;
}

}  // namespace

CaptureWriter::CaptureWriter(const std::string& path, const std::string& interfaceName)
    : m_path(path), m_file(openPrivately(path)) {
    if (!m_file) throw systemError("cannot write the capture file " + path, errno);
    std::string section;
    put(section, kByteOrderMagic);
    put(section, std::uint16_t{1});
    put(section, std::uint16_t{0});
    put(section, std::int64_t{-1});

    std::string interface;
    put(interface, kLinkTypeUser0);
    put(interface, std::uint16_t{0});
    put(interface, std::uint32_t{0});
    putOption(interface, kInterfaceName, interfaceName);
    putOption(interface, kTimeResolution, std::string_view("\x09", 1));
    put(interface, std::uint32_t{kEnd});
    if (!writeBlock(kSectionHeader, section) || !writeBlock(kInterface, interface)) {
        throw systemError("cannot write the capture file " + path, errno);
    }
}

CaptureWriter::~CaptureWriter() = default;

void CaptureWriter::write(Direction direction, const void* packet, std::uint32_t length) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto time = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    std::string body;
    body.reserve(length + 48);
    put(body, std::uint32_t{0});
    put(body, static_cast<std::uint32_t>(time >> 32));
    put(body, static_cast<std::uint32_t>(time));
    put(body, length);
    put(body, length);
    body.append(static_cast<const char*>(packet), length);
    pad(body);
    std::string flags;
    put(flags, static_cast<std::uint32_t>(direction));
    putOption(body, kPacketFlags, flags);
    put(body, std::uint32_t{kEnd});

    std::lock_guard lock(m_mutex);
    if (m_failed || writeBlock(kEnhancedPacket, body)) return;
    m_failed = true;
    std::fprintf(stderr, "vcctl: the capture to %s stops here: %s\n", m_path.c_str(),
                 std::strerror(errno));
}

bool CaptureWriter::writeBlock(std::uint32_t type, const std::string& body) {
    std::string head;
    const auto total = static_cast<std::uint32_t>(body.size() + 12);
    put(head, type);
    put(head, total);
    return std::fwrite(head.data(), 1, head.size(), m_file.get()) == head.size() &&
           std::fwrite(body.data(), 1, body.size(), m_file.get()) == body.size() &&
           std::fwrite(&total, 1, sizeof total, m_file.get()) == sizeof total &&
           std::fflush(m_file.get()) == 0;
}

CaptureReader::CaptureReader(const std::string& path)
    : m_name(path == "-" ? "standard input" : path),
      m_owned(path == "-" ? nullptr : std::fopen(path.c_str(), "rbe")),
      m_file(path == "-" ? stdin : m_owned.get()) {
    if (!m_file) throw systemError("cannot read " + m_name, errno);
    std::uint32_t type = 0;
    std::vector<unsigned char> body;
    const auto notOurs = [this] {
        return CommandError(m_name + " is not a pcapng capture made by `vcctl host --capture`");
    };
    const int first = std::getc(m_file);
    if (std::ferror(m_file)) throw systemError("cannot read " + m_name, errno);
    if (first != static_cast<int>(kSectionHeader % 256)) throw notOurs();
    std::ungetc(first, m_file);
    if (!readBlock(type, body) || type != kSectionHeader ||
        numberAt<std::uint32_t>(body, 0) != kByteOrderMagic) {
        throw notOurs();
    }
}

bool CaptureReader::readBlock(std::uint32_t& type, std::vector<unsigned char>& body) {
    std::uint32_t head[2];
    const std::size_t got = std::fread(head, 1, sizeof head, m_file);
    if (got == 0) return false;
    const auto cutShort = [this] {
        return CommandError(m_name +
                            " ends within a block: its host is still writing, or was killed");
    };
    if (got != sizeof head) throw cutShort();
    if (head[1] < 12 || head[1] > kMostBlock || head[1] % 4 != 0) {
        throw CommandError(m_name + " is damaged, or not a pcapng capture");
    }
    type = head[0];
    body.resize(head[1] - sizeof head);
    if (std::fread(body.data(), 1, body.size(), m_file) != body.size()) throw cutShort();
    body.resize(body.size() - 4);
    return true;
}

std::optional<CapturedPacket> CaptureReader::next() {
    std::uint32_t type = 0;
    std::vector<unsigned char> body;
    while (readBlock(type, body)) {
        if (type != kEnhancedPacket || body.size() < 20) continue;
        const auto length = numberAt<std::uint32_t>(body, 12);
        if (length > body.size() - 20)
            throw CommandError(m_name + " is damaged: a packet is cut short");
        CapturedPacket packet;
        packet.nanoseconds = (std::uint64_t{numberAt<std::uint32_t>(body, 4)} << 32) |
                             numberAt<std::uint32_t>(body, 8);
        packet.bytes.assign(body.begin() + 20, body.begin() + 20 + length);
        const std::uint32_t flags = flagsOf(body, 20 + (length + 3u) / 4u * 4u);
        packet.direction = (flags & 3u) == 2 ? Direction::Outbound : Direction::Inbound;
        return packet;
    }
    return std::nullopt;
}

}  // namespace vcctl
