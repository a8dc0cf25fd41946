// The table of what is played, held against what the Mac exports to the program.

#include "machost/Imports.h"
#include "machost/objc/PlayedClass.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <regex>
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

std::string declarations(const std::string& framework, const std::string& file) {
    return testsupport::readAll(OSTLER_TEST_DATA "/../cmake/macos-sdk/Frameworks/" + framework +
                                ".framework/" + file);
}

std::string frameworkOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// The functions and variables of a stub, which are those that its headers declare.
std::set<std::string> declaredSymbols(const std::string& stub) {
    std::set<std::string> symbols;
    const std::regex list("[^-]symbols: +\\[ ([^\\]]*) \\]");
    std::smatch found;
    if (!std::regex_search(stub, found, list)) return symbols;
    std::istringstream words(std::regex_replace(found[1].str(), std::regex("[,']"), " "));
    for (std::string word; words >> word;)
        symbols.insert(word);
    return symbols;
}

TEST(PlayedImports, OfTheFrameworksAreWhatTheirHeadersDeclare) {
    int frameworks = 0;
    for (const machost::Library& library : machost::playedLibraries()) {
        const std::string path = library.path;
        if (path.find(".framework/") == std::string::npos) continue;
        ++frameworks;
        std::set<std::string> played;
        for (const machost::ImportTable* table : library.tables)
            for (const machost::Import& import : *table)
                if (std::string(import.symbol).find("_$_") == std::string::npos) played.insert(import.symbol);
        const std::string name = frameworkOf(path);
        EXPECT_EQ(declaredSymbols(declarations(name, name + ".tbd")), played) << path;
    }
    EXPECT_EQ(frameworks, 6);
}

// "+[Class message:]" of a declaration, without its types.
std::string messageOf(const std::string& className, const std::string& declaration) {
    std::string words =
        std::regex_replace(declaration.substr(1), std::regex("\\([^()]*(\\([^()]*\\)[^()]*)*\\)"), " ");
    std::string selector;
    const std::regex part("(\\w+):");
    for (std::sregex_iterator at(words.begin(), words.end(), part), end; at != end; ++at)
        selector += (*at)[1].str() + ":";
    std::smatch name;
    if (selector.empty() && std::regex_search(words, name, std::regex("\\w+"))) selector = name.str();
    return declaration[0] + ("[" + className + " ") + selector + "]";
}

void addProperty(std::set<std::string>& messages, const std::string& className, std::string property) {
    property = std::regex_replace(property, std::regex("__attribute__.*"), "");
    std::smatch parts;
    ASSERT_TRUE(std::regex_search(property, parts, std::regex("\\(([^)]*)\\).*?(\\w+) *$"))) << property;
    const std::string attributes = parts[1], name = parts[2];
    const std::string front = (attributes.find("class") == 0 ? "+[" : "-[") + className + " ";
    messages.insert(front + name + "]");
    if (attributes.find("readonly") != std::string::npos) return;
    messages.insert(front + "set" + static_cast<char>(std::toupper(name[0])) + name.substr(1) + ":]");
}

// All messages that the classes, or the protocols, of a header take. NSObject's own are not declared there.
std::set<std::string> declaredMessages(const std::string& header, const std::string& keyword = "@interface") {
    std::set<std::string> messages;
    const std::regex classes(keyword + " (\\w+)([\\s\\S]*?)@end");
    for (std::sregex_iterator at(header.begin(), header.end(), classes), end; at != end; ++at) {
        std::istringstream body((*at)[2].str());
        for (std::string declaration; std::getline(body, declaration, ';');) {
            const std::size_t start = declaration.find_first_of("+-@");
            if (start == std::string::npos) continue;
            declaration = std::regex_replace(declaration.substr(start), std::regex("\\s+"), " ");
            if (declaration[0] == '@')
                addProperty(messages, (*at)[1], declaration);
            else
                messages.insert(messageOf((*at)[1], declaration));
        }
    }
    return messages;
}

// Objects of Core Foundation are of Foundation's classes too.
std::string objectiveName(std::string name) {
    if (name.rfind("CF", 0) == 0) name.replace(0, 2, "NS");
    return name;
}

std::string selectorOf(const std::string& message) { return message.substr(message.find(' ')); }

// Whether some protocol has the message, whichever class takes it.
bool isOfAProtocol(const std::string& message) {
    const auto ofProtocols =
        declaredMessages(declarations("Foundation", "Headers/Foundation.h"), "@protocol");
    return std::any_of(ofProtocols.begin(), ofProtocols.end(), [&](const std::string& declared) {
        return selectorOf(declared) == selectorOf(message);
    });
}

bool isOfEveryObject(const std::string& message) {
    return message.find(" description]") != std::string::npos ||
           message.find("[NSObject ") != std::string::npos;
}

TEST(PlayedMessages, AreThoseThatTheHeadersDeclare) {
    auto declared = declaredMessages(declarations("Foundation", "Headers/Foundation.h"));
    declared.merge(declaredMessages(declarations("OpenDirectory", "Headers/OpenDirectory.h")));
    ASSERT_GT(declared.size(), 40u);
    std::set<std::string> played;
    for (const machost::Library& library : machost::playedLibraries())
        for (const machost::objc::PlayedClass* kind : library.classes) {
            const std::string name = objectiveName(kind->kind->name);
            for (const auto& method : kind->ofClass)
                played.insert("+[" + name + " " + method.selector + "]");
            for (const auto& method : kind->ofObjects)
                played.insert("-[" + name + " " + method.selector + "]");
        }
    for (const std::string& message : declared)
        EXPECT_TRUE(played.count(message)) << "nothing plays " << message;
    for (const std::string& message : played)
        EXPECT_TRUE(declared.count(message) || isOfEveryObject(message) || isOfAProtocol(message))
            << "nobody declares " << message;
}

TEST(PlayedImports, AreFoundInTheirOwnLibraryOrInAny) {
    EXPECT_NE(machost::findImport("/usr/lib/libSystem.B.dylib", "_strlen"), nullptr);
    EXPECT_EQ(machost::findImport("/usr/lib/libobjc.A.dylib", "_strlen"), nullptr);
    EXPECT_NE(machost::findImport("", "_CFRelease"), nullptr);
    EXPECT_EQ(machost::findImport("", "_nobodyPlaysThis"), nullptr);
}

} // namespace
