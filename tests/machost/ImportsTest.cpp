// The table of what is played, held against what the Mac exports to the program.

#include "machost/Imports.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

namespace {

// An unindented line names a library, an indented one its symbols.
std::map<std::string, std::set<std::string>> exports() {
    std::istringstream text(testsupport::readAll(OSTLER_TEST_DATA "/../cmake/macos-sdk/exports-10.12.txt"));
    std::map<std::string, std::set<std::string>> all;
    std::string library;
    for (std::string line; std::getline(text, line);) {
        line = line.substr(0, line.find('#'));
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        if (line[0] != ' ') {
            library = line;
            continue;
        }
        std::istringstream words(line);
        for (std::string word; words >> word;)
            all[library].insert(word);
    }
    return all;
}

// What only the whole run-time library of the cross-build asks for.
bool isOfTheRunTime(const std::string& symbol) { return symbol == "__availability_version_check"; }

TEST(PlayedImports, AreTheSymbolsThatTheMacExportsToTheProgram) {
    const auto known = exports();
    ASSERT_FALSE(known.empty());
    std::map<std::string, std::set<std::string>> played;
    for (const machost::Library& library : machost::playedLibraries()) {
        EXPECT_TRUE(known.count(library.path)) << library.path;
        for (const machost::ImportTable* table : library.tables)
            for (const machost::Import& import : *table) {
                EXPECT_TRUE(played[library.path].insert(import.symbol).second) << import.symbol << " twice";
                EXPECT_NE(import.address, nullptr) << import.symbol;
                EXPECT_STRNE(import.source, "") << import.symbol;
            }
    }
    for (const auto& [library, symbols] : known)
        for (const std::string& symbol : symbols)
            EXPECT_TRUE(played[library].count(symbol)) << symbol << " of " << library;
    for (const auto& [library, symbols] : played)
        for (const std::string& symbol : symbols) {
            if (isOfTheRunTime(symbol)) continue;
            const auto found = known.find(library);
            EXPECT_TRUE(found != known.end() && found->second.count(symbol)) << symbol << " of " << library;
        }
}

TEST(PlayedImports, AreFoundInTheirOwnLibraryOrInAny) {
    EXPECT_NE(machost::findImport("/usr/lib/libSystem.B.dylib", "_strlen"), nullptr);
    EXPECT_EQ(machost::findImport("/usr/lib/libobjc.A.dylib", "_strlen"), nullptr);
    EXPECT_NE(machost::findImport("", "_CFRelease"), nullptr);
    EXPECT_EQ(machost::findImport("", "_nobodyPlaysThis"), nullptr);
}

} // namespace
