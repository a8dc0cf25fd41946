// Tables that fit, colours only where they are wanted, the progress bar's line.

#include "lab/Terminal.h"
#include "lab/LabRun.h"
#include "lab/ProgressBar.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using lab::Colour;
using lab::TextTable;

TextTable someTable() {
    TextTable table({"name", "what it is"});
    table.add(
        {{"a name that is rather long, in truth"}, {"words that go on and on until they reach the edge"}});
    table.add({{"short", Colour::bad}, {"few"}});
    return table;
}

TEST(TextTable, NoLineIsWiderThanAskedFor) {
    for (const std::size_t width : {40u, 60u, 80u, 200u})
        for (const std::string& line : labtest::linesOf(someTable().text(width, 2, false)))
            EXPECT_LE(line.size(), width) << line;
}

TEST(TextTable, WithRoomEverythingIsInIt) {
    EXPECT_EQ(someTable().text(200, 0, false),
              "name                                  what it is\n"
              "a name that is rather long, in truth  words that go on and on until they reach the edge\n"
              "short                                 few\n");
}

TEST(TextTable, TheLastColumnIsWrappedAtBlanks) {
    TextTable table({"", ""});
    table.add({{"x"}, {"one two three four five six seven"}});
    EXPECT_EQ(table.text(28, 0, false), "x  one two three four five\n   six seven\n");
}

TEST(TextTable, ColoursTakeNoRoom) {
    EXPECT_NE(someTable().text(200, 0, true).find("\x1b[31mshort\x1b[0m                                 few"),
              std::string::npos);
    EXPECT_EQ(someTable().text(200, 0, false).find('\x1b'), std::string::npos);
}

TEST(TextTable, WhatATerminalShouldNotSeeIsReplaced) {
    TextTable table({""});
    table.add({{"a\x1b[2Jb"}});
    EXPECT_EQ(table.text(80, 0, false), "a?[2Jb\n");
}

TEST(TextTable, NoLetterOfUtf8IsCutInTwo) {
    const std::string letter = "\xc3\x9b"; // whose last byte steers a terminal
    for (const std::size_t before : {23u, 24u}) {
        TextTable table({""});
        table.add({{std::string(before, 'x') + letter + "[2J"}});
        const std::string text = table.text(before + 1, 0, false);
        EXPECT_EQ(text, std::string(before, 'x') + "\n" + letter + "[2J\n");
    }
    EXPECT_EQ(lab::shortened("ab" + letter + "cdef", 6), "ab...");
    EXPECT_EQ(lab::shortened(letter + letter, 3), letter);
    EXPECT_EQ(lab::shortened(std::string(8, '\xa0'), 6), "\xa0\xa0\xa0...");
}

TEST(Printable, IsNoControlCharacterOfUtf8) {
    for (int byte = 0x80; byte < 0xc0; ++byte) {
        const std::string text = std::string("\xc2") + static_cast<char>(byte);
        EXPECT_EQ(lab::printable("a" + text + "b"), byte < 0xa0 ? "a??b" : "a" + text + "b") << byte;
    }
}

TEST(Printable, AreTheLettersOfUtf8ThatHaveSuchBytes) {
    for (const std::string letters : {"\xc3\x9b", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xf4\x80\x80\x80"})
        EXPECT_EQ(lab::printable(letters + letters), letters + letters);
}

TEST(Printable, AreNoControlBytesOutsideOfUtf8) {
    EXPECT_EQ(lab::printable("a\x9b\xa0"), "a?\xa0");
    EXPECT_EQ(lab::printable("\xc3"), "\xc3");
    EXPECT_EQ(lab::printable("\xe0\x9b\xa0"), "\xe0?\xa0");
    EXPECT_EQ(lab::printable("\xf0\x8f\xa0\xa0"), "\xf0?\xa0\xa0");
    for (const std::string beginning : {"\xc0", "\xe0", "\xf0", "\xf5\xa0\xa0", "\xff"})
        EXPECT_EQ(lab::printable(beginning + "\x9b["), beginning + "?[");
}

TEST(Printable, AreTheCharactersThatAreNamed) {
    EXPECT_EQ(lab::printable("a\n\r\tb\x7f", "\n\t"), "a\n?\tb?");
    EXPECT_EQ(lab::printable(std::string("a\0b", 3), "\n\t"), "a?b");
}

TEST(Terminal, ColumnsRulesTheWidth) {
    setenv("COLUMNS", "77", 1);
    EXPECT_EQ(lab::widthOf(stdout), 77u);
    setenv("COLUMNS", "none", 1);
    std::FILE* file = std::tmpfile();
    EXPECT_EQ(lab::widthOf(file, 99), 99u);
    EXPECT_FALSE(lab::showsColours(file));
    std::fclose(file);
}

TEST(ProgressBar, TellsRateAndTimeLeft) {
    EXPECT_EQ(lab::ProgressBar::line(1000, 4000, 2, 79),
              "[##########..............................]  25 %, 500 packets/s, 6 s left");
    EXPECT_NE(lab::ProgressBar::line(1000, 100000, 2, 79).find("3:18 min left"), std::string::npos);
}

TEST(ProgressBar, FitsANarrowTerminal) {
    for (const std::size_t width : {10u, 30u, 50u})
        EXPECT_LE(lab::ProgressBar::line(1000, 4000, 2, width).size(), width);
}

TEST(ProgressBar, NothingIsKnownOfTheRateAtTheStart) {
    EXPECT_EQ(lab::ProgressBar::line(0, 4000, 2, 79), "[" + std::string(40, '.') + "]   0 %");
}

} // namespace
