// The documents agree with the programs.
#include <regex>
#include "TestSupport.h"

namespace {

using namespace testsupport;
using Words = std::set<std::string>;

const fs::path kRoot = NORVO_ROOT;

std::string outputOf(const std::vector<std::string>& command) {
    support::Subprocess process(command);
    return process.readAll();
}

// Group 1 of every match.
Words matchesOf(const std::string& text, const char* expression) {
    const std::regex pattern(expression);
    Words words;
    for (std::sregex_iterator match(text.begin(), text.end(), pattern), end; match != end;
         ++match) {
        words.insert((*match)[1]);
    }
    return words;
}

Words linesOf(const std::string& text) { return matchesOf(text, "([^\n]+)\n"); }

Words commandsOfHelp() {
    const std::string help = outputOf({VCCTL_PROGRAM, "--help"});
    return matchesOf(help.substr(help.find("Subcommands:")), "\n  ([a-z]+)");
}

Words optionsOfHelp(const std::string& command) {
    return matchesOf(outputOf({VCCTL_PROGRAM, command, "--help"}), "\n  (?:-\\w,)?(--[a-z-]+)");
}

// What bash suggests for the last of `words`.
Words completionOf(const std::string& words, int index) {
    const std::string script = "source " + (kRoot / "tools/completion/vcctl.bash").string() +
                               "; COMP_WORDS=(" + words + "); COMP_CWORD=" + std::to_string(index) +
                               "; _vcctl; printf '%s\\n' \"${COMPREPLY[@]}\"";
    return linesOf(outputOf({"/bin/bash", "-c", script}));
}

// The options that each section of the man page describes, by the section's commands.
std::map<std::string, Words> optionsOfManual() {
    const std::string page =
        std::regex_replace(contentOf(kRoot / "tools/man/vcctl.1"), std::regex("\\\\-"), "-");
    std::map<std::string, Words> sections;
    std::string section;
    std::istringstream lines(page);
    for (std::string line, before; std::getline(lines, line); before = line) {
        if (line.rfind(".SS ", 0) == 0) {
            sections[section = line.substr(4)];
        } else if (line.rfind(".SH", 0) == 0) {
            section.clear();
        } else if (before == ".TP" && !section.empty()) {
            sections[section].merge(matchesOf(line, "(--[a-z-]+)"));
        }
    }
    return sections;
}

TEST(Documents, ManualCompletionAndHelpNameTheSameCommandsAndOptions) {
    Words commands = commandsOfHelp();
    ASSERT_GE(commands.size(), 8U);
    Words explained;
    for (const auto& [section, options] : optionsOfManual()) {
        Words ofHelp;
        for (const std::string& command : matchesOf(section, "([a-z]+)")) {
            explained.insert(command);
            ofHelp.merge(optionsOfHelp(command));
        }
        ofHelp.erase("--help");
        EXPECT_EQ(options, ofHelp) << "in the man page's section " << section;
    }
    EXPECT_EQ(explained, commands);

    for (const std::string& command : commands) {
        EXPECT_EQ(completionOf("vcctl " + command + " --", 2), optionsOfHelp(command)) << command;
    }
    commands.insert({"--help", "--version"});
    EXPECT_EQ(completionOf("vcctl ''", 1), commands);
}

TEST(Documents, ReadmeShowsTheExamplesAsTheyAreCompiled) {
    const std::string readme = contentOf(kRoot / "README.md");
    for (const std::string name : {"host.c", "send.cpp", "receive.cpp"}) {
        const std::string language = name.substr(name.find('.') + 1);
        std::string example = "```" + language + '\n';
        example += contentOf(kRoot / "examples" / name) + "```\n";
        EXPECT_NE(readme.find(example), std::string::npos) << name;
    }
}

TEST(Documents, LinksLeadToExistingFiles) {
    std::vector<fs::path> pages(fs::directory_iterator(kRoot / "docs"), {});
    pages.insert(pages.end(), {kRoot / "README.md", kRoot / "CONTRIBUTING.md"});
    std::size_t links = 0;
    for (const auto& page : pages) {
        for (const std::string& link :
             matchesOf(contentOf(page), "\\]\\(([^)#:]+)(?:#[^)]*)?\\)")) {
            ++links;
            EXPECT_TRUE(fs::exists(page.parent_path() / link)) << page << link;
        }
    }
    EXPECT_GE(links, 5U);
}

TEST(Documents, NameTestsThatThereAre) {
    std::set<std::string> tests;
    const auto& all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); ++i) {
        const auto& suite = *all.GetTestSuite(i);
        const std::string name = fs::path(suite.name()).filename();
        for (int j = 0; j < suite.total_test_count(); ++j) {
            const std::string test = suite.GetTestInfo(j)->name();
            tests.insert(name + '.' + test.substr(0, test.find('/')));
        }
    }
    std::size_t named = 0;
    for (const auto& file : fs::directory_iterator(kRoot / "docs")) {
        for (const auto& test : matchesOf(contentOf(file.path()), "`([A-Z]\\w+\\.[A-Z]\\w{6,})`")) {
            EXPECT_TRUE(tests.contains(test)) << file.path().filename() << ": " << test;
            ++named;
        }
    }
    EXPECT_GT(named, 20U);
}

}  // namespace
