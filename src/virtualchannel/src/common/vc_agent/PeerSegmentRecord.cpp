#include "PeerSegmentRecord.h"

#include <array>
#include <atomic>
#include <cstring>
#include <memory>

#include "NamedObject.h"
#include "ProcessIdentity.h"
#include "SegmentUse.h"
#include "StreamRules.h"

namespace VirtualChannelAgent {

using VDIFrameworkCommon::NamedObject;
using VDIFrameworkCommon::ProcessIdentity;

namespace {

// One segment. A process claims a free place by compare-and-swap of `process`, writes the name,
// then sets the user bit of `process`. Without that bit the name is incomplete.
struct Place {
    std::atomic<ProcessIdentity::Word> process;  // 0 while the place is free
    char name[kMaxStreamNameLength + 1];         // ends with a zero byte
};
static_assert(sizeof(Place) == 264);

// The places are spread over several objects, as named objects have a fixed size.
constexpr std::size_t kPerObject = NamedObject::kAreaSize / sizeof(Place);
constexpr std::size_t kObjects = kMaxPeerStreams / kPerObject + 1;
using Places = std::array<Place, kPerObject>;

ProcessIdentity::Word finished(ProcessIdentity::Word process) {
    return process | ProcessIdentity::kUserBit;
}

enum class Missing { Make, Leave };

// Calls `action` with each place until it returns true. Returns whether one did.
template <class Action>
bool anyPlace(Missing missing, const Action& action) {
    for (std::size_t i = 0; i < kObjects; ++i) {
        const std::string name = "PeerSegments" + std::to_string(i);
        constexpr auto kKind = NamedObject::Kind::Registry;
        const auto object = missing == Missing::Make
                                ? NamedObject::open(kKind, name.c_str())
                                : NamedObject::openExisting(kKind, name.c_str());
        if (!object) return false;
        for (Place& place : *static_cast<Places*>(object->area())) {
            if (action(place)) return true;
        }
    }
    return false;
}

// A copy: another process may be writing there.
std::string nameIn(const Place& place) {
    char copy[sizeof place.name];
    std::memcpy(copy, place.name, sizeof copy);
    return {copy, strnlen(copy, sizeof copy)};
}

bool claim(Place& place, const std::string& name) {
    ProcessIdentity::Word nobody = 0;
    if (!place.process.compare_exchange_strong(nobody, ProcessIdentity::own())) return false;
    std::memcpy(place.name, name.c_str(), name.size() + 1);
    place.process = finished(ProcessIdentity::own());
    return true;
}

}  // namespace

void PeerSegmentRecord::add(const std::string& name) {
    if (!isUsableStreamName(name)) return;
    anyPlace(Missing::Make, [&](Place& place) { return claim(place, name); });
}

void PeerSegmentRecord::remove(const std::string& name) {
    const auto own = finished(ProcessIdentity::own());
    const bool gone = shared_memory::removeSegmentIfUnused(name);
    anyPlace(Missing::Leave, [&](Place& place) {
        if (place.process != own || nameIn(place) != name) return false;
        if (gone) place.process = 0;
        return true;
    });
}

int PeerSegmentRecord::removeLeftovers() {
    int removed = 0;
    anyPlace(Missing::Leave, [&](Place& place) {
        ProcessIdentity::Word process = place.process;
        if (process == 0 || !ProcessIdentity::isGone(process)) return false;
        const std::string name = nameIn(place);
        const bool isComplete = (process & ProcessIdentity::kUserBit) && isUsableStreamName(name);
        if (isComplete && !shared_memory::removeSegmentIfUnused(name)) return false;
        if (place.process.compare_exchange_strong(process, 0) && isComplete) removed++;
        return false;
    });
    return removed;
}

}  // namespace VirtualChannelAgent
