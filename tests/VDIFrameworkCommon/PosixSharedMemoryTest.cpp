#include "FileDescriptor.h"
#include "FrameworkSupport.h"
#include "Namespace.h"

using namespace frameworktest;

namespace {

class PosixSharedMemoryTest : public testing::Test {
protected:
    int open(int flags = O_RDWR | O_CREAT) const {
        errno = 0;
        return shm_open_mac(name, flags, 0600);
    }
    const std::string name = "object";
    // The object's path in the system.
    const std::string path = "/dev/shm" + sharedMemoryObjectName(name);
    const std::string ownPath = "/dev/shm" + ownSharedMemoryObjectName(name);
};

struct stat statusOf(int fd) {
    struct stat status {};
    fstat(fd, &status);
    return status;
}

TEST(SharedMemoryObjectName, IsShortenedToAReadablePrefixAndAHash) {
    const std::string fitting(255 - 1 - namespacedName("").size(), 'x');
    EXPECT_EQ(sharedMemoryObjectName(fitting, 255), '/' + namespacedName(fitting));
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

TEST_F(PosixSharedMemoryTest, OpensLikeShmOpenWithExactlyTheModeWhateverTheUmask) {
    EXPECT_EQ(open(O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    const mode_t before = umask(0777);
    const int fd = open(O_RDWR | O_CREAT | O_EXCL);
    umask(before);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(statusOf(fd).st_mode & 07777, 0600u);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(open(O_RDWR | O_CREAT | O_EXCL), -1);
    EXPECT_EQ(errno, EEXIST);
    close(fd);
    EXPECT_EQ(shm_unlink_mac(name), 0);
    EXPECT_EQ(shm_unlink_mac(name), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PosixSharedMemoryTest, GrowsToWhatTheSystemCanHoldAndNeverShrinksAndKeepsWhatIsThere) {
    const int fd = open();
    ASSERT_GE(fd, 0);
    for (const long long impossible : {-1LL, 1LL << 60})
        EXPECT_EQ(ftruncate_mac(fd, impossible), -1);
    EXPECT_EQ(statusOf(fd).st_size, 0);
    EXPECT_EQ(ftruncate_mac(fd, 5000), 0);
    EXPECT_EQ(pwrite(fd, "kept", 4, 4996), 4);
    EXPECT_EQ(ftruncate_mac(fd, 100), 0);
    EXPECT_EQ(statusOf(fd).st_size, 5000);
    EXPECT_EQ(ftruncate_mac(fd, 9000), 0);
    EXPECT_EQ(statusOf(fd).st_size, 9000);
    char bytes[5] = {};
    EXPECT_EQ(pread(fd, bytes, 4, 4996), 4);
    EXPECT_STREQ(bytes, "kept");
    // An object that was sized without memory behind it gets backing memory.
    EXPECT_EQ(ftruncate(fd, 1 << 20), 0);
    EXPECT_EQ(ftruncate_mac(fd, 1 << 20), 0);
    EXPECT_GE(statusOf(fd).st_blocks, (1 << 20) / 512);
    close(fd);
    EXPECT_EQ(ftruncate_mac(-1, 100), -1);
}

TEST_F(PosixSharedMemoryTest, WhatIsNotThisUsersAloneIsPassedOverAlikeWheneverOneComes) {
    const auto makeFile = [](const char* at) { return std::ofstream(at).put('x').good(); };
    const std::function<bool(const char* at)> obstacles[] = {
        [=](auto at) { return makeFile(at) && chmod(at, 0620) == 0; },
        [=](auto at) {
            return makeFile(at) && (geteuid() == 0 ? chown(at, 65534, 0) : chmod(at, 0602)) == 0;
        },
        [](auto at) { return mkfifo(at, 0600) == 0; },
        [](auto at) { return symlink("/etc/passwd", at) == 0; },
        [](auto at) { return mkdir(at, 0700) == 0; }};
    LogCapture log;
    for (const auto& plant : obstacles) {
        ASSERT_TRUE(plant(path.c_str()));
        EXPECT_EQ(open(O_RDWR), -1);
        EXPECT_EQ(errno, ENOENT);
        const FileDescriptor first(open());
        const FileDescriptor second(open());
        fs::remove(path);
        const FileDescriptor afterwards(open());
        ASSERT_TRUE(first && second && afterwards);
        EXPECT_EQ(statusOf(second.get()).st_ino, statusOf(first.get()).st_ino);
        EXPECT_EQ(statusOf(afterwards.get()).st_ino, statusOf(first.get()).st_ino);
        EXPECT_EQ(openedSharedMemoryObject(name), ownSharedMemoryObjectName(name));
        EXPECT_EQ(shm_unlink_mac(name), 0);

        // An object under the user's own name does not prevent use of the documented one.
        ASSERT_TRUE(plant(ownPath.c_str()));
        EXPECT_TRUE(FileDescriptor(open()));
        EXPECT_EQ(openedSharedMemoryObject(name), sharedMemoryObjectName(name));
        ASSERT_TRUE(fs::remove(path) && plant(path.c_str()));
        EXPECT_EQ(open(), -1) << "both names are held";
        fs::remove(path);
        fs::remove(ownPath);
    }
    EXPECT_EQ(log.count("is held by something of user"), 1) << "told once for each name";
}

CHILD_ROLE(namespaceTeller) {
    say(sessionNamespace() + ' ' + namespacedName("name"));
    return 0;
}

TEST(SessionNamespaceAcrossProcesses, IsPartOfNamesWithoutInvalidCharacters) {
    const std::string longest(32, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"", " name"},
        {"left-1", "left-1 left-1.name"},
        {"a/b .c", "a_b__c a_b__c.name"},
        {longest + "xxx", longest + ' ' + longest + ".name"}};
    for (const auto& [value, told] : cases) {
        ChildProcess child("namespaceTeller", {}, {"NORVO_VDI_NAMESPACE=" + value});
        EXPECT_EQ(child.readLine(), told);
    }
}

}  // namespace
