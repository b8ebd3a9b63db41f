#include "SessionFolder.h"

namespace VDIFrameworkCommon {

// Created by the login manager, where there is one.
std::vector<std::string> privateFolders(uid_t user) {
    return {"/run/user/" + std::to_string(user) + "/norvo"};
}

}  // namespace VDIFrameworkCommon
