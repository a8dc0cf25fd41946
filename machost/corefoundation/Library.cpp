#include "machost/corefoundation/Library.h"

namespace machost::corefoundation {

Library library() {
    return {"/System/Library/Frameworks/CoreFoundation.framework/Versions/A/CoreFoundation",
            {&collectionImports(), &constantImports(), &notificationImports(), &runLoopImports(),
             &stringImports(), &valueImports()},
            {&playedArrayClass(), &playedDataClass(), &playedDateClass(), &playedDictionaryClass(),
             &playedLoopClass(), &playedUrlClass()}};
}

} // namespace machost::corefoundation
