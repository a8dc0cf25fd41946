// machost: runs an x86-64 Mach-O executable as a Linux process.
//
//   machost [--argv0 NAME] [--root FOLDER] [--world SOCKET] PROGRAM ARGUMENTS...
//   machost --played     lists what is played: library, symbol or method, and the source that it follows

#include "machost/Imports.h"
#include "machost/Program.h"
#include "machost/Settings.h"
#include "machost/objc/PlayedClass.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>

namespace {

constexpr int unusable = 2;

void listMethods(const char* library, const machost::objc::PlayedClass& played, char sign,
                 const std::vector<machost::objc::Method>& methods) {
    for (const machost::objc::Method& method : methods)
        std::printf("%s\t%c[%s %s]\t%s\n", library, sign, played.kind->name, method.selector, played.source);
}

int listPlayed() {
    for (const machost::Library& library : machost::playedLibraries()) {
        for (const machost::ImportTable* table : library.tables)
            for (const machost::Import& import : *table)
                std::printf("%s\t%s\t%s\n", library.path, import.symbol, import.source);
        for (const machost::objc::PlayedClass* played : library.classes) {
            listMethods(library.path, *played, '+', played->ofClass);
            listMethods(library.path, *played, '-', played->ofObjects);
        }
    }
    return 0;
}

int complain() {
    std::fprintf(stderr,
                 "usage: machost [--argv0 NAME] [--root FOLDER] [--world SOCKET] PROGRAM ARGUMENTS...\n");
    return unusable;
}

// The place of the program's path among the words, or 0 for words that cannot be used.
int readOptions(int count, char** words) {
    machost::Settings& settings = machost::settings();
    int i = 1;
    for (; i < count && std::strncmp(words[i], "--", 2) == 0; i += 2) {
        if (i + 1 == count) return 0;
        if (std::strcmp(words[i], "--argv0") == 0)
            settings.argv0 = words[i + 1];
        else if (std::strcmp(words[i], "--root") == 0)
            settings.root = words[i + 1];
        else if (std::strcmp(words[i], "--world") == 0)
            settings.world = words[i + 1];
        else
            return 0;
    }
    if (i >= count) return 0;
    settings.program = words[i];
    if (settings.argv0.empty()) settings.argv0 = words[i];
    return i;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--played") == 0) return listPlayed();
    const int program = readOptions(argc, argv);
    if (program == 0) return complain();
    try {
        argv[program] = machost::settings().argv0.data();
        machost::runProgram(machost::settings().program, argc - program, argv + program);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "machost: %s: %s\n", machost::settings().program.c_str(), error.what());
        // Nothing of what was made for the program is taken down, here as at its own end.
        _exit(unusable);
    }
}
