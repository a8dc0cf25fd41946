#pragma once

// Arrays and dictionaries of objects, which are NSArray and NSDictionary too.

#include "machost/objects/Object.h"

#include <utility>
#include <vector>

namespace machost::corefoundation {

extern const Class arrayClass;
extern const Class dictionaryClass;

// What an array holds, for an object of arrayClass.
const std::vector<Held>& elementsOf(const void* array);

// An array of these objects, each retained; the caller owns it.
ObjectRef makeArray(const std::vector<const void*>& elements);

using Pairs = std::vector<std::pair<Held, Held>>;

// A dictionary's pairs in the order in which they were added.
const Pairs& pairsOf(const void* dictionary);

// The caller owns it. No two keys may be equal.
ObjectRef makeDictionary(Pairs pairs);

// What the dictionary has for the key; null for none. It still owns it.
const void* valueIn(const void* dictionary, const void* key);

// Texts are equal by their content, all else by what it is.
bool areEqual(const void* one, const void* other);

} // namespace machost::corefoundation
