#pragma once

// Header only: whoever uses it need not link the framework.
#include "../src/VDIFrameworkCommon/process/FileDescriptor.h"

namespace support {

using Descriptor = VDIFrameworkCommon::FileDescriptor;

}  // namespace support
