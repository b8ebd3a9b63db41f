#include "MemoryBlock.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <new>
#include <span>

#include "LocalMutex.h"

namespace VDIFrameworkCommon {

namespace {

// From this size on memory comes straight from the system, and is certain to go back there: an
// allocator may keep it for good.
constexpr std::size_t kSmallestMapped = 256 * 1024;
constexpr std::size_t kGranularity = 64 * 1024;  // of mapped blocks; a multiple of any page size
constexpr std::size_t kMostBlocks = 16;          // kept

struct Memory {
    std::byte* data = nullptr;
    std::size_t capacity = 0;
    bool isOld = false;
};

// With zeros if it `mustBeZero`.
Memory fromSystem(std::size_t size, bool mustBeZero) {
    if (size < kSmallestMapped) {
        void* const block = mustBeZero ? std::calloc(size, 1) : std::malloc(size);
        return {static_cast<std::byte*>(block), block ? size : 0};
    }
    const std::size_t capacity = (size + kGranularity - 1) / kGranularity * kGranularity;
    void* const mapped =
        mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANON, -1, 0);
    if (mapped == MAP_FAILED) return {};
    return {static_cast<std::byte*>(mapped), capacity};
}

void toSystem(const Memory& memory) {
    if (memory.capacity < kSmallestMapped) {
        std::free(memory.data);
    } else {
        munmap(memory.data, memory.capacity);
    }
}

// The kept blocks, the latest last. What leaves it is freed after the lock is released.
class Store {
public:
    class Freed {
    public:
        Freed() = default;
        ~Freed() {
            for (const Memory& memory : std::span(m_blocks).first(m_count)) toSystem(memory);
        }
        Freed(const Freed&) = delete;
        Freed& operator=(const Freed&) = delete;
        void add(const Memory& memory) { m_blocks[m_count++] = memory; }

    private:
        std::size_t m_count = 0;
        std::array<Memory, kMostBlocks> m_blocks;
    };

    // The latest block is the most likely to be in the cache.
    Memory take(std::size_t wanted) {
        if (bytes() == 0) return {};
        LocalLock lock(m_mutex);
        for (std::size_t i = m_count; i-- > 0;) {
            const std::size_t capacity = m_blocks[i].capacity;
            if (capacity >= wanted && capacity <= 2 * wanted) return remove(i);
        }
        return {};
    }

    void keep(const Memory& memory) {
        Freed freed;
        LocalLock lock(m_mutex);
        if (!m_isKeeping) return freed.add(memory);
        while (m_count == m_blocks.size() || m_bytes + memory.capacity > MemoryBlock::kMostKept)
            freed.add(remove(0));
        m_blocks[m_count++] = {memory.data, memory.capacity};
        m_bytes += memory.capacity;
    }

    void setKeeping(bool isKept) {
        {
            LocalLock lock(m_mutex);
            m_isKeeping = isKept;
        }
        if (!isKept) freeUnused(true);
    }

    void freeUnused(bool alsoNew) {
        if (bytes() == 0) return;
        Freed freed;
        LocalLock lock(m_mutex);
        for (std::size_t i = m_count; i-- > 0;) {
            if (alsoNew || m_blocks[i].isOld) {
                freed.add(remove(i));
            } else {
                m_blocks[i].isOld = true;
            }
        }
    }

    std::size_t bytes() const { return m_bytes.load(std::memory_order_relaxed); }

private:
    Memory remove(std::size_t index) NORVO_REQUIRES(m_mutex) {
        const Memory memory = m_blocks[index];
        std::copy(m_blocks.begin() + index + 1, m_blocks.begin() + m_count,
                  m_blocks.begin() + index);
        --m_count;
        m_bytes -= memory.capacity;
        return memory;
    }

    LocalMutex m_mutex;
    std::array<Memory, kMostBlocks> m_blocks NORVO_GUARDED_BY(m_mutex);
    std::size_t m_count NORVO_GUARDED_BY(m_mutex) = 0;
    bool m_isKeeping NORVO_GUARDED_BY(m_mutex) = true;
    std::atomic<std::size_t> m_bytes{0};  // written under the mutex
};

Store& store() {
    // Never destroyed: outlives every thread that may use it.
    alignas(Store) static std::byte place[sizeof(Store)];
    static Store* const only = ::new (place) Store;
    return *only;
}

}  // namespace

MemoryBlock MemoryBlock::allocate(std::size_t size, std::size_t wanted) noexcept {
    Memory memory = wanted >= kSmallestKept ? store().take(wanted) : Memory();
    if (!memory.data) memory = fromSystem(size, false);
    return {memory.data, memory.capacity};
}

MemoryBlock MemoryBlock::zeroed(std::size_t size) noexcept {
    const Memory memory = fromSystem(size, true);
    return {memory.data, memory.capacity};
}

void MemoryBlock::giveUp(std::byte* data, std::size_t capacity) noexcept {
    const bool isKept = capacity >= kSmallestKept && capacity <= kMostKept;
    isKept ? store().keep({data, capacity}) : toSystem({data, capacity});
}

void MemoryBlock::freeOld() noexcept { store().freeUnused(false); }

void MemoryBlock::setKeeping(bool isKept) noexcept { store().setKeeping(isKept); }

std::size_t MemoryBlock::kept() noexcept { return store().bytes(); }

}  // namespace VDIFrameworkCommon
