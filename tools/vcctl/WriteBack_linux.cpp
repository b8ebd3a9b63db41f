#include "WriteBack.h"

#include <fcntl.h>

namespace vcctl {

void startWriteBack(int file, std::uint64_t offset, std::uint64_t length) {
    sync_file_range(file, static_cast<off_t>(offset), static_cast<off_t>(length),
                    SYNC_FILE_RANGE_WRITE);
}

}  // namespace vcctl
