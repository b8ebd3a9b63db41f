#include "ApplicationBundle.h"

#include "FrameworkSupport.h"
#include "PropertyList.h"

using namespace frameworktest;

namespace {

std::string listOf(const std::string& entries) {
    return "<?xml version=\"1.0\"?><!DOCTYPE plist><plist version=\"1.0\">\n<dict>\n" + entries +
           "</dict></plist>";
}

TEST(PropertyList, FindsTheStringOfAKeyInTheOutermostDictionary) {
    const std::string xml = listOf(
        "<key>Other</key><dict><key>Id</key><string>inner</string></dict>"
        "<key>Flag</key><true/>"
        "<!-- <key>Id</key><string>comment</string> -->"
        "<key>Kinds</key><array><string>Id</string><string>no</string></array>"
        "<key>Id</key>\n  <string>outer</string>"
        "<key>A&amp;B</key><string>&lt;&#65;&#x20ac;&gt;&nope;&</string>");
    EXPECT_EQ(propertyListString(xml, "Id"), "outer");
    EXPECT_EQ(propertyListString(xml, "A&B"), "<A\xe2\x82\xac>&nope;&");
    for (const char* key : {"id", "Flag", "Kinds"})
        EXPECT_EQ(propertyListString(xml, key), "") << key;
}

TEST(PropertyList, BrokenTextHasNoSuchKey) {
    const std::string xml = listOf("<key>Id</key><string>value</string>");
    const auto whole = xml.find("</string>") + 9;
    for (std::size_t length = 0; length < whole; ++length)
        EXPECT_EQ(propertyListString(xml.substr(0, length), "Id"), "") << length;
    for (const char* text :
         {"bplist00\xd1\x01\x02", "<", "<<>>", "</></></><key>Id</key><string>x"})
        EXPECT_EQ(propertyListString(text, "Id"), "") << text;
    const auto start = Clock::now();
    propertyListString(std::string(std::size_t{1} << 20, '&') + '<', "Id");
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
}

TEST(ApplicationBundle, AnInvalidDescriptionIsIgnored) {
    TempDir dir;
    const std::string path = dir / "X.app";
    fs::create_directories(path + "/Contents");
    const auto executableOf = [&](const std::string& entries) {
        std::ofstream(path + "/Contents/Info.plist") << listOf(entries);
        return readBundle(path).executable;
    };
    const std::string program = "<key>CFBundleExecutable</key><string>run</string>";
    EXPECT_EQ(executableOf(program), path + "/Contents/MacOS/run");
    EXPECT_EQ(executableOf("<key>CFBundleExecutable</key><string>../../../bin/sh</string>"), "");
    EXPECT_EQ(executableOf("<!--" + std::string(std::size_t{1} << 20, ' ') + "-->" + program), "");
    EXPECT_EQ(readBundle(dir / "missing.app").executable, "");
}

TEST(ApplicationBundle, IsTheInnermostAppFolderOfAPath) {
    EXPECT_EQ(bundlePathOf("/A/X.app/Contents/Helpers/Y.app/Contents/MacOS/y"),
              "/A/X.app/Contents/Helpers/Y.app");
    EXPECT_EQ(bundlePathOf("/A/X.application/x"), "");
    EXPECT_EQ(bundlePathOf("/A/x.app"), "");
}

}  // namespace
