#include "SharedMemoryFactory.h"

#include "MultipleWritersOneReaderSM.h"
#include "SharedMemoryBroadcast.h"
#include "SharedMemoryMacosx.h"

namespace shared_memory {

std::shared_ptr<SharedMemoryI> getSharedMemoryInstance(ESharedMemoryType type) {
    switch (type) {
        case ESharedMemoryType::Plain:
            return std::make_shared<SharedMemoryMacosx>();
        case ESharedMemoryType::Broadcast:
            return std::make_shared<SharedMemoryBroadcast>();
        case ESharedMemoryType::MultipleWritersOneReader:
            return std::make_shared<MultipleWritersOneReaderSM>();
    }
    return nullptr;
}

}  // namespace shared_memory
