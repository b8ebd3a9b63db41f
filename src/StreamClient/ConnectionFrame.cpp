#include "ConnectionFrame.h"

#include <cstring>

namespace NorvoStreamClient {

namespace {

constexpr char kMagic[4] = {'N', 'V', 'C', 1};  // the last byte is the version

// The header as laid out in a frame; integers are little-endian, as on both supported processors.
struct Header {
    char magic[4];
    std::uint8_t kind;
    std::uint8_t flags;
    std::uint16_t reserved;
    std::uint64_t from;
    std::uint64_t to;
    std::uint64_t number;
    std::uint64_t seen;
    std::uint64_t offset;
    std::uint64_t acked;
    std::uint64_t limit;
    std::uint32_t messages;
    std::uint32_t length;
};
static_assert(sizeof(Header) == ConnectionFrame::kHeaderSize);
static_assert(offsetof(Header, from) == 8 && offsetof(Header, offset) == 40 &&
              offsetof(Header, length) == 68);

bool isKind(std::uint8_t kind) {
    return kind >= static_cast<std::uint8_t>(ConnectionFrame::Kind::Hello) &&
           kind <= static_cast<std::uint8_t>(ConnectionFrame::Kind::Reset);
}

bool isPossible(const Header& header, std::size_t length) {
    const bool carries = length > 0 || (header.flags & ConnectionFrame::kEnd) != 0;
    const bool isData = header.kind == static_cast<std::uint8_t>(ConnectionFrame::Kind::Data);
    return std::memcmp(header.magic, kMagic, sizeof kMagic) == 0 && isKind(header.kind) &&
           header.length == length && header.from != 0 && (isData || !carries) &&
           carries == (header.number != 0) && header.offset <= UINT64_MAX - length - 1;
}

}  // namespace

void ConnectionFrame::writeHeader(char* header, std::size_t length) const {
    Header bytes{{},
                 static_cast<std::uint8_t>(kind),
                 flags,
                 0,
                 from,
                 to,
                 number,
                 seen,
                 offset,
                 acked,
                 limit,
                 messages,
                 static_cast<std::uint32_t>(length)};
    std::memcpy(bytes.magic, kMagic, sizeof kMagic);
    std::memcpy(header, &bytes, sizeof bytes);
}

std::optional<ConnectionFrame> ConnectionFrame::parse(std::string_view message) {
    Header header;
    if (message.size() < sizeof header) return std::nullopt;
    std::memcpy(&header, message.data(), sizeof header);
    if (!isPossible(header, message.size() - sizeof header)) return std::nullopt;
    ConnectionFrame frame;
    frame.kind = static_cast<Kind>(header.kind);
    frame.flags = header.flags;
    frame.from = header.from;
    frame.to = header.to;
    frame.number = header.number;
    frame.seen = header.seen;
    frame.offset = header.offset;
    frame.acked = header.acked;
    frame.limit = header.limit;
    frame.messages = header.messages;
    return frame;
}

}  // namespace NorvoStreamClient
