// What most tests need of the standard library, the system and this folder.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <deque>
#include <future>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "Eventually.h"
#include "FileContent.h"
#include "LogCapture.h"
#include "ReadyChild.h"
#include "Rounds.h"
#include "TempDir.h"
#include "Threads.h"

namespace testsupport {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;
namespace fs = std::filesystem;

}  // namespace testsupport
