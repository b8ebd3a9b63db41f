#include "TransferTally.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cstring>

namespace vcctl {

namespace {

constexpr char kMagic[25] = "\x01vcctl: end of transfer\x01";
constexpr std::size_t kMagicSize = sizeof kMagic - 1;
constexpr std::size_t kMarkSize = kMagicSize + 3 * sizeof(std::uint64_t);

std::uint64_t numberAt(const std::string& text, std::size_t index) {
    std::uint64_t number = 0;
    std::memcpy(&number, text.data() + kMagicSize + index * sizeof number, sizeof number);
    return number;
}

}  // namespace

struct TransferTally::Hash {
    alignas(64) XXH3_state_t state;
};

TransferTally::TransferTally() : m_hash(new Hash) { XXH3_64bits_reset(&m_hash->state); }
TransferTally::~TransferTally() { delete m_hash; }

void TransferTally::add(const void* data, std::size_t length) {
    XXH3_64bits_update(&m_hash->state, data, length);
    ++m_messages;
    m_bytes += length;
}

std::uint64_t TransferTally::checksum() const { return XXH3_64bits_digest(&m_hash->state); }

std::string TransferTally::endMark() const {
    std::string mark(kMagic, kMagicSize);
    for (const std::uint64_t number : {m_messages, m_bytes, checksum()}) {
        mark.append(reinterpret_cast<const char*>(&number), sizeof number);
    }
    return mark;
}

std::optional<std::string> TransferTally::judge(const std::string& message) const {
    if (message.size() != kMarkSize || std::memcmp(message.data(), kMagic, kMagicSize) != 0) {
        return std::nullopt;
    }
    if (numberAt(message, 0) != m_messages || numberAt(message, 1) != m_bytes) {
        return "only " + std::to_string(m_messages) + " of " +
               std::to_string(numberAt(message, 0)) + " messages arrived (" +
               std::to_string(m_bytes) + " of " + std::to_string(numberAt(message, 1)) + " bytes)";
    }
    if (numberAt(message, 2) != checksum()) return "the data arrived damaged";
    return "";
}

}  // namespace vcctl
