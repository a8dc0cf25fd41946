#pragma once

// Arrays and dictionaries of objects.

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

} // namespace machost::corefoundation
