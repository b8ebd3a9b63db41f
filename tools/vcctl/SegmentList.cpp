#include "SegmentList.h"

#include <unistd.h>

namespace vcctl {

std::string segmentObject(const std::string& name) {
    return std::to_string(geteuid()) + "CWVDI_" + name;
}

}  // namespace vcctl
