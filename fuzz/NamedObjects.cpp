// The words of a named mutex and a named condition, as any process of the user may write them. The
// input is a sequence of records: which word changes (or what is called), and the value.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "NamedCondition.h"
#include "NamedMutex.h"
#include "NamedObject.h"

using namespace VDIFrameworkCommon;

namespace {

struct Objects {
    Objects() {
        if (!mutex.create("fuzz") || !condition.create("fuzz") || !other.create("fuzz")) abort();
    }
    // Handles on one name share one mapping.
    NamedObjectWords& mutexWords = wordsOf(NamedObject::Kind::Mutex);
    NamedObjectWords& conditionWords = wordsOf(NamedObject::Kind::Condition);
    NamedMutex mutex;
    NamedCondition condition;
    NamedCondition other;

private:
    static NamedObjectWords& wordsOf(NamedObject::Kind kind) {
        // For the life of the process.
        static std::shared_ptr<NamedObject> objects[2];
        auto& object = objects[kind == NamedObject::Kind::Mutex ? 0 : 1];
        object = NamedObject::open(kind, "fuzz");
        if (!object) abort();
        return object->words();
    }
};

void change(Objects& objects, uint8_t what, std::uint64_t value) {
    NamedObjectWords& condition = objects.conditionWords;
    switch (what) {
        case 0:
            objects.mutexWords.owner = value;
            break;
        case 1:
            objects.mutexWords.released = value;
            break;
        case 2:
            condition.sequence = value;
            break;
        case 3:
            condition.parkedAt = value;
            break;
        case 4:
            condition.notifier = value;
            break;
        case 5:
            condition.earlierNotifier = value;
            break;
        case 6:
            condition.notifierCpu = static_cast<std::uint32_t>(value);
            break;
        default:
            condition.wokenAt = static_cast<std::int64_t>(value);
    }
}

void use(Objects& objects) {
    constexpr auto kPatience = std::chrono::milliseconds(1);
    if (!objects.mutex.lockFor(kPatience)) {
        // The owner may be a living process in other namespaces, whose lock is not taken over.
        objects.mutexWords.owner = 0;
        if (!objects.mutex.lockFor(kPatience)) abort();
    }
    objects.other.notify();
    objects.condition.timed_wait(objects.mutex, 1);
    NamedCondition late;
    if (!late.create("fuzz")) abort();
    late.timed_wait(objects.mutex, 1);
    objects.mutex.unlock();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static auto* const objects = new Objects;
    for (int uses = 0; size >= 9 && uses < 8; data += 9, size -= 9) {
        std::uint64_t value = 0;
        std::memcpy(&value, data + 1, sizeof value);
        change(*objects, data[0] % 8, value);
        if (data[0] >= 0x80) {
            use(*objects);
            ++uses;
        }
    }
    use(*objects);
    return 0;
}
