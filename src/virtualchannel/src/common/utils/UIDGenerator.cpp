#include <ctime>

#include "Packets.h"

namespace NorvoVirtualChannel {

UIDGenerator* UIDGenerator::GetInstance() {
    // Never deleted: channels may cut messages while the process exits.
    static auto* const instance = new UIDGenerator(static_cast<unsigned int>(time(nullptr)));
    return instance;
}

unsigned int UIDGenerator::GetNextUID() {
    return m_last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace NorvoVirtualChannel
