#include "LogFile.h"

#include <sys/resource.h>

#include <csignal>

#include "FrameworkSupport.h"

using namespace frameworktest;
using KLT::kltlogger::LogFile;

namespace {

class LogFileTest : public testing::Test {
protected:
    std::string content(const std::string& name) { return contentOf(dir / name); }
    const TempDir dir;
    LogFile file{20};
};

TEST_F(LogFileTest, MakesItsDirectoryForTheOwnerOnly) {
    ASSERT_TRUE(file.open(dir / "a/b/x.log"));
    file.write("line\n");
    EXPECT_EQ(content("a/b/x.log"), "line\n");
    for (const char* folder : {"a", "a/b"})
        EXPECT_EQ(fs::status(dir / folder).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(dir / "a/b/x.log").permissions() & ~fs::perms::owner_all, fs::perms::none);
}

TEST_F(LogFileTest, AppendsAndRollsOverBeforeItsLimitAndKeepsThreeFiles) {
    std::ofstream(dir / "x.log") << "before\n";
    ASSERT_TRUE(file.open(dir / "x.log"));
    for (const char* text : {"1111111\n", "222\n", "333333333\n", "444444444\n"}) file.write(text);
    EXPECT_EQ(content("x.log.1"), "before\n1111111\n222\n");
    EXPECT_EQ(content("x.log"), "333333333\n444444444\n");
    const std::string endless = std::string(50, 'a') + '\n';
    for (const std::string& text : {endless, std::string("b\n"), endless, endless})
        file.write(text);
    EXPECT_EQ(content("x.log"), endless);
    EXPECT_EQ(content("x.log.1"), endless);
    EXPECT_EQ(content("x.log.2"), "b\n");
    EXPECT_EQ(content("x.log.3"), endless);
    EXPECT_FALSE(fs::exists(dir / "x.log.4"));
}

TEST_F(LogFileTest, ReopensItsPathWhenTheFileWasRenamedOrRemoved) {
    ASSERT_TRUE(file.open(dir / "a/x.log"));
    file.write("first\n");
    fs::rename(dir / "a/x.log", dir / "a/x.log.1");
    file.write("second\n");
    EXPECT_EQ(content("a/x.log.1"), "first\n");
    EXPECT_EQ(content("a/x.log"), "second\n");
    fs::remove_all(dir / "a");
    std::ofstream(dir / "a") << "in the way";
    file.write("lost\n");
    fs::remove(dir / "a");
    file.write("written\n");
    EXPECT_EQ(content("a/x.log"), "written\n");
}

TEST_F(LogFileTest, ALineAfterATornOneIsALine) {
    ASSERT_TRUE(file.open(dir / "x.log"));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit little{4, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &little);
    for (const char* text : {"torn\n", "lost\n"}) file.write(text);
    setrlimit(RLIMIT_FSIZE, &before);
    file.write("whole\n");
    EXPECT_EQ(content("x.log"), "torn\nwhole\n");
}

TEST_F(LogFileTest, APathThatCannotBeALogFileIsNotOpened) {
    std::ofstream(dir / "plain") << "";
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    fs::create_directory(dir / "folder");
    std::ofstream(dir / "precious") << "precious";
    fs::create_symlink(dir / "precious", dir / "link");
    fs::create_hard_link(dir / "precious", dir / "second name");
    for (const std::string& path :
         {dir / "plain/x.log", dir / "fifo", dir / "folder", dir / "link", dir / "second name"}) {
        EXPECT_FALSE(file.open(path)) << path;
        file.write("line\n");
    }
    EXPECT_EQ(content("precious"), "precious");
}

}  // namespace
