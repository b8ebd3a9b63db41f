#pragma once

#include <string>
#include <string_view>

namespace VDIFrameworkCommon {

// The value of NORVO_VDI_NAMESPACE, read once per process; empty when unset. Characters other than
// letters, digits, '-' and '_' are replaced by '_', and at most 32 are kept.
const std::string& sessionNamespace();

// `name` itself when there is no namespace, else the namespace, a '.', and `name`. Every
// machine-wide name (shared-memory objects, named mutexes and conditions, active-agent record, stop
// marker) passes through here; only the framework calls it.
std::string namespacedName(std::string_view name);

}  // namespace VDIFrameworkCommon
