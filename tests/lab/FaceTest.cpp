// What all subcommands of fernhill-lab have in common: help with examples, colours on a terminal alone, tables that fit.

#include "lab/LabRun.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

namespace {

using labtest::linesOf;
using labtest::runLab;
using testsupport::writeAll;

// The names in the list of subcommands.
std::vector<std::string> subcommands() {
    std::vector<std::string> names;
    bool listed = false;
    for (const std::string& line : linesOf(runLab({"--help"}).out)) {
        std::smatch found;
        if (listed && std::regex_search(line, found, std::regex("^  ([a-z]+) "))) names.push_back(found[1]);
        listed |= line == "Subcommands:";
    }
    return names;
}

// What the program writes to a terminal of that many columns.
std::string onTerminal(std::vector<std::string> words, unsigned short columns) {
    winsize size{40, columns, 0, 0};
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
    if (child == 0) {
        words.insert(words.begin(), OSTLER_BINARY_DIR "/lab/fernhill-lab");
        std::vector<char*> pointers;
        for (std::string& word : words)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        execv(pointers[0], pointers.data());
        _exit(127);
    }
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = read(terminal, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(count));
    close(terminal);
    waitpid(child, nullptr, 0);
    return text;
}

class FaceTest : public testing::Test {
protected:
    FaceTest() {
        unsetenv("COLUMNS");
        unsetenv("NO_COLOR");
        setenv("TERM", "xterm", 1);
        writeAll(configuration_,
                 "<Fernhill><Lost>a text that no setting of the daemon's has</Lost></Fernhill>\n");
    }

    testsupport::TemporaryFolder folder_;
    const std::string configuration_ = folder_.file("fernhill.xml");
};

TEST_F(FaceTest, EverySubcommandHasHelpWithItsExitStatusAndAnExample) {
    const std::vector<std::string> names = subcommands();
    EXPECT_GE(names.size(), 8u);
    for (const std::string& name : names) {
        const labtest::LabRun run = runLab({name, "--help"});
        EXPECT_EQ(run.status, 0) << name;
        EXPECT_NE(run.out.find("Exit status: "), std::string::npos) << name;
        EXPECT_TRUE(std::regex_search(run.out, std::regex("Examples?:\\s+fernhill-lab " + name))) << run.out;
    }
}

TEST_F(FaceTest, ATerminalGetsColours) {
    EXPECT_NE(onTerminal({"check", configuration_}, 100).find("\x1b[31m"), std::string::npos);
}

TEST_F(FaceTest, NoColourWhereItIsNotWanted) {
    EXPECT_EQ(runLab({"check", configuration_}).out.find('\x1b'), std::string::npos);
    setenv("NO_COLOR", "1", 1);
    EXPECT_EQ(onTerminal({"check", configuration_}, 100).find('\x1b'), std::string::npos);
    unsetenv("NO_COLOR");
    setenv("TERM", "dumb", 1);
    EXPECT_EQ(onTerminal({"check", configuration_}, 100).find('\x1b'), std::string::npos);
}

TEST_F(FaceTest, ATableFitsTheTerminal) {
    setenv("NO_COLOR", "1", 1);
    for (const unsigned short columns : {80, 100, 140}) {
        const std::string text = onTerminal({"check", configuration_}, columns);
        EXPECT_NE(text.find("LOST"), std::string::npos) << text;
        for (std::string line : linesOf(text)) {
            line.erase(line.find_last_not_of('\r') + 1);
            EXPECT_LE(line.size(), columns) << line;
        }
    }
}

TEST_F(FaceTest, TheLogComesAsJsonToo) {
    writeAll(folder_.file("fernhill00.log"),
             "[7 Sun Nov 22 10:00:00 2026]: Ostler Interceptor Started \"x\"\n"
             "[7 Sun Nov 22 10:00:01 2026]: a second line\n");
    const labtest::LabRun run = runLab({"log", folder_.path(), "--json"});
    EXPECT_EQ(run.status, 0) << run.err;
    const std::vector<std::string> lines = linesOf(run.out);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(nlohmann::json::parse(lines[0])["text"], "Ostler Interceptor Started \"x\"");
    EXPECT_EQ(nlohmann::json::parse(lines[1])["thread"], 7);
    EXPECT_TRUE(nlohmann::json::parse(runLab({"log", folder_.path(), "--hangs", "--json"}).out).is_array());
}

} // namespace
