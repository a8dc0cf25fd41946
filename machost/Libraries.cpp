#include "machost/Imports.h"

#include "machost/libsystem/Library.h"

namespace machost {

const std::vector<Library>& playedLibraries() {
    static const auto& libraries = *new std::vector<Library>{libsystem::library()};
    return libraries;
}

} // namespace machost
