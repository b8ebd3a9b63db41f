#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ChildProcess.h"

namespace testsupport {

// A child process that has said "ready".
struct ReadyChild : ChildProcess {
    explicit ReadyChild(const std::string& role, const std::vector<std::string>& args = {})
        : ChildProcess(role, args) {
        EXPECT_EQ(readLine(), "ready") << role;
    }
};

}  // namespace testsupport
