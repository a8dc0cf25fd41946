#pragma once

// The tables of libSystem, one for each file of its shims.

#include "machost/Imports.h"

namespace machost::libsystem {

Library library();

const ImportTable& blockImports();
const ImportTable& characterImports();
const ImportTable& descriptorImports();
const ImportTable& dispatchImports();
const ImportTable& fileImports();
const ImportTable& lockImports();
const ImportTable& memoryImports();
const ImportTable& nameImports();
const ImportTable& processImports();
const ImportTable& queueImports();
const ImportTable& runtimeImports();
const ImportTable& signalImports();
const ImportTable& socketImports();
const ImportTable& streamImports();
const ImportTable& systemImports();
const ImportTable& textImports();
const ImportTable& threadImports();
const ImportTable& timeImports();
const ImportTable& wideTextImports();

} // namespace machost::libsystem
