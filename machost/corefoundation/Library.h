#pragma once

// The tables of CoreFoundation, one for each file of its shims.

#include "machost/Imports.h"

namespace machost::corefoundation {

Library library();

const ImportTable& collectionImports();
const ImportTable& constantImports();
const ImportTable& notificationImports();
const ImportTable& runLoopImports();
const ImportTable& stringImports();

} // namespace machost::corefoundation
