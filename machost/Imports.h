#pragma once

// The libraries of the Mac that are played, as tables of what a program may import from them.

#include <string>
#include <vector>

namespace machost {

namespace objc {
struct PlayedClass;
}

// One import: its symbol, what stands for it here, and whose behaviour that follows.
struct Import {
    const char* symbol;
    const void* address;
    const char* source;
};

// A row for a function. The compiler picks among overloads when the type is named.
template <class Result, class... Arguments>
Import function(const char* symbol, Result (*played)(Arguments...), const char* source) {
    return {symbol, reinterpret_cast<const void*>(played), source};
}
template <class Result, class... Arguments>
Import function(const char* symbol, Result (*played)(Arguments..., ...), const char* source) {
    return {symbol, reinterpret_cast<const void*>(played), source};
}

// A row for a variable, whose address the program is bound to.
inline Import variable(const char* symbol, const void* played, const char* source) {
    return {symbol, played, source};
}

using ImportTable = std::vector<Import>;

struct Library {
    const char* path; // as programs name it
    std::vector<const ImportTable*> tables;
    std::vector<const objc::PlayedClass*> classes = {}; // that take messages, whether exported or not
};

// All played libraries. Made on first use, never destroyed.
const std::vector<Library>& playedLibraries();

// What stands for the symbol of the library at `path`, or of whichever library has it for an empty path; null where
// nothing plays it.
const Import* findImport(const std::string& path, const std::string& symbol);

} // namespace machost
