#include "machost/libsystem/Library.h"

namespace machost::libsystem {

Library library() {
    return {"/usr/lib/libSystem.B.dylib",
            {&blockImports(), &characterImports(), &descriptorImports(), &dispatchImports(), &fileImports(),
             &lockImports(), &memoryImports(), &nameImports(), &processImports(), &queueImports(),
             &runtimeImports(), &signalImports(), &socketImports(), &streamImports(), &systemImports(),
             &textImports(), &threadImports(), &timeImports(), &wideTextImports()}};
}

} // namespace machost::libsystem
