#pragma once

#include "NorvoStreamClientStatus.h"
#include "OpenFailure.h"

namespace NorvoStreamClient {

// Why a segment could not be set up, in the words of this library.
Status statusOf(const shared_memory::OpenError& error);

}  // namespace NorvoStreamClient
