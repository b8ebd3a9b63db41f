#include "NamedObject.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "LogCapture.h"
#include "NamedMutex.h"
#include "PosixSharedMemory.h"

using testsupport::LogCapture;
using VDIFrameworkCommon::NamedMutex;
using VDIFrameworkCommon::NamedObject;
using Kind = VDIFrameworkCommon::NamedObject::Kind;

namespace {

// An object made by somebody else under the name of a mutex.
class PlantedObject {
public:
    PlantedObject(const std::string& name, long long size, mode_t mode = 0600)
        : m_name(NamedObject::objectName(Kind::Mutex, name)),
          m_fd(VDIFrameworkCommon::shm_open_mac(m_name, O_RDWR | O_CREAT | O_EXCL, 0600)) {
        EXPECT_GE(m_fd, 0);
        EXPECT_EQ(ftruncate(m_fd, static_cast<off_t>(size)), 0);
        EXPECT_EQ(fchmod(m_fd, mode), 0);
    }
    ~PlantedObject() {
        close(m_fd);
        VDIFrameworkCommon::shm_unlink_mac(m_name);
    }
    PlantedObject(const PlantedObject&) = delete;
    PlantedObject& operator=(const PlantedObject&) = delete;

    void write(const std::string& bytes) const {
        EXPECT_EQ(pwrite(m_fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    long long size() const {
        struct stat status {};
        fstat(m_fd, &status);
        return status.st_size;
    }

private:
    const std::string m_name;
    const int m_fd;
};

bool canCreate(const char* name) { return NamedMutex().create(name); }

}  // namespace

TEST(NamedObject, AdoptsAnEmptyOrAllZeroObjectThatAKilledCreatorLeft) {
    const PlantedObject empty("empty", 0);
    EXPECT_TRUE(canCreate("empty"));
    const PlantedObject zero("zero", NamedObject::kSize);
    EXPECT_TRUE(canCreate("zero"));
    EXPECT_TRUE(canCreate("zero"));
}

TEST(NamedObject, RefusesAnotherLayoutAndAnObjectThatOthersMayOpenAndLeavesThemAsTheyAre) {
    LogCapture log;
    const PlantedObject foreign("foreign", NamedObject::kSize);
    foreign.write("something else");
    EXPECT_FALSE(canCreate("foreign"));
    EXPECT_EQ(log.count("Refused named mutex foreign"), 1);
    EXPECT_EQ(log.count("another layout"), 1);

    const PlantedObject small("small", 100);
    EXPECT_FALSE(canCreate("small"));
    EXPECT_EQ(small.size(), 100);
    EXPECT_EQ(log.count("Refused named mutex small"), 1);

    const PlantedObject readable("readable", NamedObject::kSize, 0640);
    EXPECT_FALSE(canCreate("readable"));
    EXPECT_TRUE(log.contains("open to other users"));
    const PlantedObject writable("writable", NamedObject::kSize, 0666);
    EXPECT_FALSE(canCreate("writable"));
    EXPECT_TRUE(log.contains("Cannot open named mutex writable"));
}

TEST(NamedObject, HandlesOfOneKindShareAMappingUntilTheNameIsRemovedFromTheSystem) {
    const auto mutex = NamedObject::open(Kind::Mutex, "both");
    const auto condition = NamedObject::open(Kind::Condition, "both");
    ASSERT_TRUE(mutex && condition);
    EXPECT_EQ(mutex, NamedObject::open(Kind::Mutex, "both"));
    EXPECT_NE(mutex->words().ident, condition->words().ident);
    VDIFrameworkCommon::shm_unlink_mac(NamedObject::objectName(Kind::Mutex, "both"));
    const auto after = NamedObject::open(Kind::Mutex, "both");
    ASSERT_TRUE(after);
    EXPECT_NE(mutex, after);
    EXPECT_EQ(NamedObject::open(Kind::Mutex, "both"), after);
}
