#include <ctime>

#include "Packets.h"

namespace NorvoVirtualChannel {

using VDIFrameworkCommon::LocalLock;

VDIFrameworkCommon::LocalMutex UIDGenerator::m_Mutex;
UIDGenerator* UIDGenerator::m_pInstance = nullptr;

UIDGenerator* UIDGenerator::GetInstance() {
    LocalLock lock(m_Mutex);
    if (!m_pInstance) m_pInstance = new UIDGenerator(static_cast<unsigned int>(time(nullptr)));
    return m_pInstance;
}

unsigned int UIDGenerator::GetNextUID() {
    LocalLock lock(m_Mutex);
    return ++m_last;
}

}  // namespace NorvoVirtualChannel
