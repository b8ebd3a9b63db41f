// The property list of an application bundle, with arbitrary contents. The first byte
// is the length of the key.
#include "PropertyList.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::size_t length = std::min<std::size_t>(data[0], text.size());
    const auto key = text.substr(0, length);
    const auto xml = text.substr(length);
    // An entity is never shorter than the character it represents.
    if (VDIFrameworkCommon::propertyListString(xml, key).size() > xml.size()) abort();
    VDIFrameworkCommon::propertyListString(xml, "CFBundleExecutable");
    return 0;
}
