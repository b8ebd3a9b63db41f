#pragma once

#include "NorvoStreamClientStatus.h"
#include "OpenFailure.h"

namespace NorvoStreamClient {

// Why a segment could not be set up, as a Status.
Status statusOf(const shared_memory::OpenError& error);

}  // namespace NorvoStreamClient
