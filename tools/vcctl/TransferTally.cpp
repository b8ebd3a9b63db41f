#include "TransferTally.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "CommandError.h"
#include "StopSignal.h"

namespace vcctl {

struct TransferTally::Hash {
    alignas(64) XXH3_state_t state;
};

TransferTally::TransferTally() : m_hash(new Hash) { clear(); }
TransferTally::~TransferTally() { delete m_hash; }

void TransferTally::add(const void* data, std::size_t length) {
    XXH3_64bits_update(&m_hash->state, data, length);
    m_bytes += length;
}

void TransferTally::addFile(int descriptor, std::uint64_t end, const std::string& name) {
    std::vector<char> block(std::size_t{1} << 18);
    for (std::uint64_t at = 0; at < end;) {
        StopSignal::throwIfRequested();
        const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), end - at));
        const ssize_t got = pread(descriptor, block.data(), most, static_cast<off_t>(at));
        if (got <= 0) throw systemError("cannot read " + name, got < 0 ? errno : EIO);
        add(block.data(), static_cast<std::size_t>(got));
        at += static_cast<std::uint64_t>(got);
    }
}

std::uint64_t TransferTally::checksum() const { return XXH3_64bits_digest(&m_hash->state); }

void TransferTally::clear() {
    XXH3_64bits_reset(&m_hash->state);
    m_bytes = 0;
}

}  // namespace vcctl
