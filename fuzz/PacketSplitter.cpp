// The bytes of a channel without packet boundaries. The first byte says how they are split.
#include "PacketSplitter.h"

#include <algorithm>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t cut = 1 + data[0];
    hosts::PacketSplitter splitter(1500, 2000);
    size_t delivered = 0;
    for (size_t at = 1; at < size; at += cut) {
        splitter.add({data + at, std::min(cut, size - at)},
                     [&](const unsigned char* packet, std::uint32_t length) {
                         if (length < 24 || length > 1500 || packet[2] != 91) abort();
                         volatile unsigned char last = packet[length - 1];
                         static_cast<void>(last);
                         delivered += length;
                     });
    }
    if (delivered + splitter.skipped() > size - 1) abort();
    return 0;
}
