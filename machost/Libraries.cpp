#include "machost/Imports.h"

#include "machost/corefoundation/Library.h"
#include "machost/foundation/Library.h"
#include "machost/iokit/Library.h"
#include "machost/libsystem/Library.h"
#include "machost/objc/Library.h"
#include "machost/opendirectory/Library.h"
#include "machost/security/Library.h"
#include "machost/systemconfiguration/Library.h"

namespace machost {

const std::vector<Library>& playedLibraries() {
    static const auto& libraries = *new std::vector<Library>{
        libsystem::library(),  objc::library(),          corefoundation::library(),
        foundation::library(), opendirectory::library(), systemconfiguration::library(),
        iokit::library(),      security::library()};
    return libraries;
}

} // namespace machost
