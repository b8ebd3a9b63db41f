// Shared by the tests of the framework.
#pragma once

#include "MappedObject.h"
#include "WaitOnAddress.h"

namespace frameworktest {

using namespace testsupport;
using namespace VDIFrameworkCommon;

// A T in memory shared by all processes that use its name; initially zero.
template <class T>
struct SharedBlock : private MappedObject {
    explicit SharedBlock(const std::string& name) : MappedObject(name, sizeof(T)) {}
    T* operator->() const { return reinterpret_cast<T*>(data()); }
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
