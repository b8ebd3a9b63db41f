#pragma once

// Header only: users need not link the framework.
#include "../src/VDIFrameworkCommon/process/FileDescriptor.h"

namespace support {

using Descriptor = VDIFrameworkCommon::FileDescriptor;

}  // namespace support
