#pragma once

// The tables of CoreFoundation, one for each file of its shims, and its classes.

#include "machost/Imports.h"
#include "machost/objc/PlayedClass.h"

namespace machost::corefoundation {

Library library();

const ImportTable& collectionImports();
const ImportTable& constantImports();
const ImportTable& notificationImports();
const ImportTable& runLoopImports();
const ImportTable& stringImports();
const ImportTable& valueImports();

const objc::PlayedClass& playedArrayClass();
const objc::PlayedClass& playedDataClass();
const objc::PlayedClass& playedDateClass();
const objc::PlayedClass& playedDictionaryClass();
const objc::PlayedClass& playedLoopClass();
const objc::PlayedClass& playedUrlClass();

} // namespace machost::corefoundation
