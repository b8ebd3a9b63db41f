#include "SessionNamespace.h"

#include <cstdlib>
#include <stdexcept>

namespace hosts {

void useSessionNamespace(const std::string& name) {
    constexpr std::size_t kMostCharacters = 32;
    constexpr char kAllowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    if (name.size() > kMostCharacters || name.find_first_not_of(kAllowed) != std::string::npos)
        throw std::runtime_error("the namespace '" + name +
                                 "': only letters, digits, '-' and '_' are allowed, at most 32");
    setenv("NORVO_VDI_NAMESPACE", name.c_str(), 1);
}

}  // namespace hosts
