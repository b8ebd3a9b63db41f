#include "LogFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "FileContent.h"
#include "TempDir.h"

using KLT::kltlogger::LogFile;
using testsupport::contentOf;
using testsupport::TempDir;

TEST(LogFile, MakesItsDirectoryForTheOwnerOnly) {
    TempDir dir;
    LogFile file;
    ASSERT_TRUE(file.open(dir / "a/b/x.log"));
    file.write("line\n");
    EXPECT_EQ(contentOf(dir / "a/b/x.log"), "line\n");
    struct stat status {};
    for (const char* name : {"a", "a/b"}) {
        ASSERT_EQ(stat((dir / name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0700U) << name;
    }
    ASSERT_EQ(stat((dir / "a/b/x.log").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0077, 0U);
}

TEST(LogFile, AppendsToWhatIsThere) {
    TempDir dir;
    std::ofstream(dir / "x.log") << "old\n";
    LogFile file;
    ASSERT_TRUE(file.open(dir / "x.log"));
    file.write("new\n");
    EXPECT_EQ(contentOf(dir / "x.log"), "old\nnew\n");
}

TEST(LogFile, RollsBeforeItsLimitAndKeepsThree) {
    TempDir dir;
    LogFile file(10);
    ASSERT_TRUE(file.open(dir / "x.log"));
    for (const char* text : {"1111\n", "2222\n", "3333\n", "4444\n", "5555\n", "6666\n", "7777\n",
                             "8888\n", "9999\n", "aaaa\n"}) {
        file.write(text);
    }
    EXPECT_EQ(contentOf(dir / "x.log"), "9999\naaaa\n");
    EXPECT_EQ(contentOf(dir / "x.log.1"), "7777\n8888\n");
    EXPECT_EQ(contentOf(dir / "x.log.2"), "5555\n6666\n");
    EXPECT_EQ(contentOf(dir / "x.log.3"), "3333\n4444\n");
    EXPECT_FALSE(std::filesystem::exists(dir / "x.log.4"));
}

TEST(LogFile, WritesALineLongerThanTheLimitWhole) {
    TempDir dir;
    LogFile file(10);
    ASSERT_TRUE(file.open(dir / "x.log"));
    file.write(std::string(50, 'a') + '\n');
    file.write("b\n");
    EXPECT_EQ(contentOf(dir / "x.log.1"), std::string(50, 'a') + '\n');
    EXPECT_EQ(contentOf(dir / "x.log"), "b\n");
}

TEST(LogFile, FollowsItsPathWhenAnotherRolledOrRemovedTheFile) {
    TempDir dir;
    LogFile file;
    ASSERT_TRUE(file.open(dir / "x.log"));
    file.write("first\n");
    std::filesystem::rename(dir / "x.log", dir / "x.log.1");
    file.write("second\n");
    EXPECT_EQ(contentOf(dir / "x.log.1"), "first\n");
    EXPECT_EQ(contentOf(dir / "x.log"), "second\n");
    std::filesystem::remove(dir / "x.log");
    file.write("third\n");
    EXPECT_EQ(contentOf(dir / "x.log"), "third\n");
}

TEST(LogFile, ComesBackWhenItsPlaceDoes) {
    TempDir dir;
    LogFile file;
    ASSERT_TRUE(file.open(dir / "a/x.log"));
    std::filesystem::remove_all(dir / "a");
    std::ofstream(dir / "a") << "in the way";
    file.write("lost\n");
    std::filesystem::remove(dir / "a");
    file.write("written\n");
    EXPECT_EQ(contentOf(dir / "a/x.log"), "written\n");
}

TEST(LogFile, WhatCannotBeAFileIsNoFileAndNoFailure) {
    TempDir dir;
    std::ofstream(dir / "plain") << "";
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    std::filesystem::create_directory(dir / "folder");
    LogFile file;
    for (const std::string& path :
         {std::string(), dir / "plain/x.log", dir / "fifo", dir / "folder"}) {
        EXPECT_FALSE(file.open(path)) << path;
        file.write("line\n");
    }
}
