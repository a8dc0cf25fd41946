#pragma once

// The tables of Foundation, and its classes.

#include "machost/Imports.h"
#include "machost/objc/PlayedClass.h"

namespace machost::foundation {

Library library();

const ImportTable& stringImports();
const ImportTable& fileManagerImports();
const ImportTable& machineImports();
const ImportTable& requestImports();
const ImportTable& sessionImports();

const objc::PlayedClass& playedStringClass();
const objc::PlayedClass& playedErrorClass();
const objc::PlayedClass& playedHostClass();
const objc::PlayedClass& playedFileManagerClass();
std::vector<const objc::PlayedClass*> playedRequestClasses();
std::vector<const objc::PlayedClass*> playedSessionClasses();

} // namespace machost::foundation
