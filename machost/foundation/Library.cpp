#include "machost/foundation/Library.h"

namespace machost::foundation {

Library library() {
    std::vector<const objc::PlayedClass*> classes = playedSessionClasses();
    const std::vector<const objc::PlayedClass*> requests = playedRequestClasses();
    classes.insert(classes.end(), requests.begin(), requests.end());
    classes.insert(classes.end(), {&playedStringClass(), &playedErrorClass(), &playedHostClass(),
                                   &playedFileManagerClass()});
    return {
        "/System/Library/Frameworks/Foundation.framework/Versions/C/Foundation",
        {&fileManagerImports(), &stringImports(), &machineImports(), &requestImports(), &sessionImports()},
        classes};
}

} // namespace machost::foundation
