#include "PosixSharedMemory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "ChildProcess.h"
#include "Namespace.h"
#include "SharedBlock.h"

using testsupport::ChildProcess;
using testsupport::say;
using namespace VDIFrameworkCommon;

namespace {

// A name of a test, removed at its end.
class ObjectName {
public:
    explicit ObjectName(std::string name) : m_name(std::move(name)) {}
    ~ObjectName() { unlink(path().c_str()); }
    ObjectName(const ObjectName&) = delete;
    ObjectName& operator=(const ObjectName&) = delete;

    const std::string& operator*() const { return m_name; }
    // Where the system keeps it.
    std::string path() const { return "/dev/shm" + sharedMemoryObjectName(m_name); }
    int open(int flags = O_RDWR | O_CREAT) const { return shm_open_mac(m_name, flags, 0600); }

private:
    const std::string m_name;
};

long long sizeOf(int fd) {
    struct stat status {};
    fstat(fd, &status);
    return status.st_size;
}

mode_t modeOf(int fd) {
    struct stat status {};
    fstat(fd, &status);
    return status.st_mode & 07777;
}

}  // namespace

TEST(SharedMemoryObjectName, StandsAsItIsWhenItFits) {
    EXPECT_EQ(sharedMemoryObjectName("501CWVDI_N"), '/' + namespacedName("501CWVDI_N"));
    const std::string fitting(255 - 1 - namespacedName("").size(), 'x');
    EXPECT_EQ(sharedMemoryObjectName(fitting, 255), '/' + namespacedName(fitting));
}

TEST(SharedMemoryObjectName, IsCutToAReadableStartAndAHashWhenItDoesNot) {
    const std::string name = "501CWVDI_a stream with quite a long name";
    for (const std::size_t limit : {30u, 40u}) {
        const std::string cut = sharedMemoryObjectName(name, limit);
        EXPECT_EQ(cut.size(), limit);
        EXPECT_EQ(cut.substr(0, 7), ('/' + namespacedName(name)).substr(0, 7));
        EXPECT_EQ(cut, sharedMemoryObjectName(name, limit));
        EXPECT_NE(cut, sharedMemoryObjectName(name + '2', limit));
    }
    const std::string slashed = sharedMemoryObjectName("a/b");
    EXPECT_EQ(slashed.find('/', 1), std::string::npos);
    EXPECT_NE(slashed, sharedMemoryObjectName("a_b"));
}

TEST(PosixSharedMemory, MakesAnObjectWithExactlyTheModeWhateverTheUmask) {
    const ObjectName name("umask");
    const mode_t before = umask(0777);
    const int fd = name.open();
    umask(before);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(modeOf(fd), 0600u);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(fd);
}

TEST(PosixSharedMemory, OpensLikeShmOpen) {
    const ObjectName name("flags");
    errno = 0;
    EXPECT_EQ(name.open(O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    const int fd = name.open(O_RDWR | O_CREAT | O_EXCL);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(name.open(O_RDWR | O_CREAT | O_EXCL), -1);
    EXPECT_EQ(errno, EEXIST);
    close(fd);
    EXPECT_EQ(shm_unlink_mac(*name), 0);
    EXPECT_EQ(shm_unlink_mac(*name), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(PosixSharedMemory, GrowsAndNeverShrinksAndKeepsWhatIsThere) {
    const ObjectName name("size");
    const int fd = name.open();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ftruncate_mac(fd, 5000), 0);
    EXPECT_EQ(pwrite(fd, "kept", 4, 4996), 4);
    EXPECT_EQ(ftruncate_mac(fd, 100), 0);
    EXPECT_EQ(sizeOf(fd), 5000);
    EXPECT_EQ(ftruncate_mac(fd, 9000), 0);
    EXPECT_EQ(sizeOf(fd), 9000);
    char bytes[5] = {};
    EXPECT_EQ(pread(fd, bytes, 4, 4996), 4);
    EXPECT_STREQ(bytes, "kept");
    close(fd);
}

TEST(PosixSharedMemory, RefusesASizeThatTheSystemCannotHold) {
    const ObjectName name("huge");
    const int fd = name.open();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ftruncate_mac(fd, -1), -1);
    EXPECT_EQ(ftruncate_mac(fd, 1LL << 60), -1);
    EXPECT_EQ(sizeOf(fd), 0);
    close(fd);
    EXPECT_EQ(ftruncate_mac(-1, 100), -1);
}

TEST(PosixSharedMemory, RefusesWhatOthersMayWriteToAndWhatIsNoSharedMemory) {
    const ObjectName name("planted");
    const int fd = name.open();
    ASSERT_EQ(fchmod(fd, 0620), 0);
    EXPECT_EQ(name.open(), -1);
    EXPECT_EQ(errno, EACCES);
    close(fd);

    ASSERT_EQ(shm_unlink_mac(*name), 0);
    ASSERT_EQ(mkfifo(name.path().c_str(), 0600), 0);
    EXPECT_EQ(name.open(), -1);
    EXPECT_EQ(shm_open_mac(*name, O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EACCES);

    ASSERT_EQ(unlink(name.path().c_str()), 0);
    ASSERT_EQ(symlink("/etc/passwd", name.path().c_str()), 0);
    EXPECT_EQ(name.open(), -1);
}

TEST(PosixSharedMemory, RefusesAnObjectOfAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give an object away";
    const ObjectName name("stranger");
    const int fd = name.open();
    ASSERT_EQ(fchown(fd, 12345, 12345), 0);
    close(fd);
    EXPECT_EQ(name.open(), -1);
    EXPECT_EQ(errno, EACCES);
}

CHILD_ROLE(namespaceTeller) {
    say(sessionNamespace());
    say(namespacedName("name"));
    return 0;
}

TEST(SessionNamespaceAcrossProcesses, IsWorkedIntoNamesAndCleanedOfOddCharacters) {
    const auto told = [](const std::string& value) {
        ChildProcess child("namespaceTeller", {}, {"NORVO_VDI_NAMESPACE=" + value});
        const std::string space = child.readLine();
        return std::make_pair(space, child.readLine());
    };
    EXPECT_EQ(told(""), std::make_pair(std::string(), std::string("name")));
    EXPECT_EQ(told("left-1"), std::make_pair(std::string("left-1"), std::string("left-1.name")));
    EXPECT_EQ(told("a/b .c").first, "a_b__c");
    EXPECT_EQ(told(std::string(100, 'x')).first, std::string(32, 'x'));
}
