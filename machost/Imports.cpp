#include "machost/Imports.h"

#include <cstring>

namespace machost {

const Import* findImport(const std::string& path, const std::string& symbol) {
    for (const Library& library : playedLibraries()) {
        if (!path.empty() && path != library.path) continue;
        for (const ImportTable* table : library.tables)
            for (const Import& import : *table)
                if (symbol == import.symbol) return &import;
    }
    return nullptr;
}

} // namespace machost
