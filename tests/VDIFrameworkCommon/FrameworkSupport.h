// Shared by the tests of the framework.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Eventually.h"
#include "FileContent.h"
#include "LogCapture.h"
#include "PosixSharedMemory.h"
#include "ReadyChild.h"
#include "Rounds.h"
#include "TempDir.h"
#include "Threads.h"
#include "WaitOnAddress.h"

namespace frameworktest {

using namespace testsupport;
using namespace VDIFrameworkCommon;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;
namespace fs = std::filesystem;

// A T in memory shared by all processes that use its name; initially zero.
template <class T>
class SharedBlock {
public:
    explicit SharedBlock(const std::string& name) {
        static_assert(std::is_standard_layout_v<T>);
        const int fd = shm_open_mac(name, O_RDWR | O_CREAT, 0600);
        if (fd < 0 || ftruncate_mac(fd, sizeof(T)) != 0) {
            throw std::runtime_error("cannot open the shared block " + name);
        }
        m_memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (m_memory == MAP_FAILED) throw std::runtime_error("cannot map the shared block");
    }
    ~SharedBlock() { munmap(m_memory, sizeof(T)); }
    SharedBlock(const SharedBlock&) = delete;
    SharedBlock& operator=(const SharedBlock&) = delete;

    T* operator->() { return static_cast<T*>(m_memory); }
    T& operator*() { return *static_cast<T*>(m_memory); }

private:
    void* m_memory = nullptr;
};

// Selects the "System" or "Polling" back end and returns the previous one. Children get it as an
// argument.
inline WaitBackend useBackend(const std::string& name) {
    return setWaitBackend(name == "Polling" ? WaitBackend::Polling : WaitBackend::System);
}

// Runs a suite once with each back end.
class EachBackend : public ::testing::TestWithParam<const char*> {
protected:
    EachBackend() : m_before(useBackend(GetParam())) {}
    ~EachBackend() override { setWaitBackend(m_before); }

private:
    const WaitBackend m_before;
};

}  // namespace frameworktest

#define INSTANTIATE_EACH_BACKEND(suite)                                       \
    INSTANTIATE_TEST_SUITE_P(, suite, ::testing::Values("System", "Polling"), \
                             [](const auto& backend) { return std::string(backend.param); })
