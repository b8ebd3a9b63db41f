// The chunks of a segment, as any process that maps it may write them. The input is a sequence of
// records: the four words of a chunk's header in one byte each (0xff: a huge value), and the data
// area's length.
#include "MessageAssembler.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace shared_memory;

namespace {

constexpr std::uint32_t kCapacity = 64;

std::uint32_t wordOf(uint8_t byte) { return byte == 0xff ? 0xfffffff0U : byte; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A separate allocation, so that reading past its end is detected.
    std::vector<char> area(kCapacity);
    MessageAssembler assembler;
    std::size_t taken = 0;
    std::size_t announced = 0;  // by the first chunk; the others' length does not count
    for (; size >= 5; data += 5, size -= 5) {
        const shared_memory::ChunkHeader chunk{wordOf(data[0]), wordOf(data[1]), wordOf(data[2]),
                                               wordOf(data[3])};
        std::memset(area.data(), data[4], area.size());
        if (chunk.index == 1) {
            taken = 0;
            announced = chunk.total;
        }
        switch (assembler.add(chunk, area.data(), kCapacity)) {
            case MessageAssembler::Outcome::Incomplete:
                if (!assembler.inProgress() || chunk.length > kCapacity) abort();
                taken += chunk.length;
                break;
            case MessageAssembler::Outcome::Complete: {
                taken += chunk.length;
                const auto message = assembler.take();
                if (message.size() != taken || taken != announced) abort();
                break;
            }
            default:
                if (assembler.inProgress()) abort();
        }
    }
    assembler.drop();
    if (assembler.inProgress()) abort();
    return 0;
}
