// The text of an INFO message, as any local process may write it.
#include "MessageParser.h"

#include <cstdint>
#include <cstdlib>
#include <string>

#include "MessageBuilder.h"

using VDIFrameworkCommon::MessageBuilder;
using VDIFrameworkCommon::MessageParser;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto fields =
        MessageParser(std::string(reinterpret_cast<const char*>(data), size)).parseMsg();
    if (fields.empty()) abort();

    MessageBuilder builder;
    for (const auto& field : fields) builder.append(field);
    if (MessageParser(builder.msg()).parseMsg() != fields) abort();
    return 0;
}
