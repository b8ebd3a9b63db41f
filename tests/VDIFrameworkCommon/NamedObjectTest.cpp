#include "NamedObject.h"

#include "Descriptor.h"
#include "FrameworkSupport.h"
#include "NamedCondition.h"
#include "NamedMutex.h"

using namespace frameworktest;
using Kind = NamedObject::Kind;

namespace {

// Makes an object under a mutex's name, as another program might.
support::Descriptor plant(const std::string& name, off_t size, mode_t mode = 0600) {
    const std::string object = NamedObject::objectName(Kind::Mutex, name);
    support::Descriptor file(shm_open_mac(object, O_RDWR | O_CREAT | O_EXCL, 0600));
    EXPECT_EQ(ftruncate(file.get(), size), 0);
    EXPECT_EQ(fchmod(file.get(), mode), 0);
    return file;
}

bool canCreate(const char* name) { return NamedMutex().create(name); }

TEST(NamedObject, AdoptsAnEmptyOrAllZeroObjectLeftByAKilledCreator) {
    plant("empty", 0);
    EXPECT_TRUE(canCreate("empty"));
    plant("zero", NamedObject::kSize);
    EXPECT_TRUE(canCreate("zero"));
    EXPECT_TRUE(canCreate("zero"));
}

TEST(NamedObject, RefusesForeignLayoutsAndObjectsOpenToOthersWithoutChangingThem) {
    LogCapture log;
    const auto foreign = plant("foreign", NamedObject::kSize);
    EXPECT_EQ(pwrite(foreign.get(), "something else", 14, 0), 14);
    EXPECT_FALSE(canCreate("foreign"));
    EXPECT_EQ(log.count("Refused named mutex foreign"), 1);
    EXPECT_EQ(log.count("another layout"), 1);

    const auto small = plant("small", 100);
    EXPECT_FALSE(canCreate("small"));
    EXPECT_EQ(lseek(small.get(), 0, SEEK_END), 100);
    EXPECT_EQ(log.count("Refused named mutex small"), 1);

    plant("readable", NamedObject::kSize, 0640);
    EXPECT_FALSE(canCreate("readable"));
    EXPECT_TRUE(log.contains("open to other users"));
}

TEST(NamedObject, AHandleThatWasNeverCreatedFailsAtOnce) {
    NamedMutex mutex;
    EXPECT_FALSE(mutex.lock() || mutex.unlock());
    NamedCondition condition;
    condition.notify();
    EXPECT_FALSE(condition.timed_wait(mutex, 20000));
    LogCapture log;
    EXPECT_FALSE(mutex.create("") || mutex.create(nullptr) || condition.create(""));
    EXPECT_EQ(log.count("A named mutex needs a name"), 2);
}

TEST(NamedObject, HandlesOfOneKindShareAMappingUntilTheObjectIsRemoved) {
    const auto mutex = NamedObject::open(Kind::Mutex, "both");
    const auto condition = NamedObject::open(Kind::Condition, "both");
    ASSERT_TRUE(mutex && condition);
    EXPECT_EQ(mutex, NamedObject::open(Kind::Mutex, "both"));
    EXPECT_NE(mutex->words().ident, condition->words().ident);
    shm_unlink_mac(NamedObject::objectName(Kind::Mutex, "both"));
    const auto after = NamedObject::open(Kind::Mutex, "both");
    ASSERT_TRUE(after);
    EXPECT_NE(mutex, after);
    EXPECT_EQ(NamedObject::open(Kind::Mutex, "both"), after);
}

}  // namespace
