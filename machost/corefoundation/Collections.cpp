#include "machost/corefoundation/Collections.h"

#include "machost/corefoundation/Library.h"
#include "machost/corefoundation/Strings.h"

#include <algorithm>

namespace machost::corefoundation {
namespace {

// How a collection treats what it holds. The one set that is played, which keeps counts, has this address.
struct Callbacks {
    std::int64_t version;
    const void* calls[5];
};
const Callbacks arrayCallbacks{}, keyCallbacks{}, valueCallbacks{};

using Elements = std::vector<Held>;

// A collection with other callbacks, or none, would not count what it holds.
void refuseOtherCallbacks(const Callbacks* given, const Callbacks& played) {
    if (given != &played) __builtin_trap();
}

ObjectRef playedArrayCreate(const void*, const void** elements, std::int64_t count,
                            const Callbacks* callbacks) {
    refuseOtherCallbacks(callbacks, arrayCallbacks);
    return makeArray(std::vector<const void*>(elements, elements + count));
}

ObjectRef playedDictionaryCreate(const void*, std::int64_t, const Callbacks* keys, const Callbacks* values) {
    refuseOtherCallbacks(keys, keyCallbacks);
    refuseOtherCallbacks(values, valueCallbacks);
    return createObject<Pairs>(dictionaryClass);
}

bool areEqual(const void* one, const void* other) {
    return one == other || (isString(one) && isString(other) && textOf(one) == textOf(other));
}

// A key that is there already keeps its value.
void playedDictionaryAdd(void* dictionary, const void* key, const void* value) {
    auto& pairs = valueOf<Pairs>(dictionary);
    const bool known = std::any_of(pairs.begin(), pairs.end(),
                                   [&](const auto& pair) { return areEqual(pair.first.get(), key); });
    if (!known) pairs.emplace_back(Held::retain(key), Held::retain(value));
}

} // namespace

const Class arrayClass{nullptr, nullptr, {}, nullptr, "CFArray", destroyValue<Elements>};
const Class dictionaryClass{nullptr, nullptr, {}, nullptr, "CFDictionary", destroyValue<Pairs>};

const std::vector<Held>& elementsOf(const void* array) { return valueOf<Elements>(array); }

ObjectRef makeArray(const std::vector<const void*>& elements) {
    ObjectRef array = createObject<Elements>(arrayClass);
    for (const void* element : elements)
        valueOf<Elements>(array).push_back(Held::retain(element));
    return array;
}

const Pairs& pairsOf(const void* dictionary) { return valueOf<Pairs>(dictionary); }

const ImportTable& collectionImports() {
    constexpr const char* array = "CFArray.c of CF, with the callbacks of objects";
    constexpr const char* dictionary = "CFDictionary.c of CF, with the callbacks of objects";
    static const auto& table = *new ImportTable{
        variable("_kCFTypeArrayCallBacks", &arrayCallbacks, array),
        variable("_kCFTypeDictionaryKeyCallBacks", &keyCallbacks, dictionary),
        variable("_kCFTypeDictionaryValueCallBacks", &valueCallbacks, dictionary),
        function("_CFArrayCreate", playedArrayCreate, array),
        function("_CFDictionaryCreateMutable", playedDictionaryCreate, dictionary),
        function("_CFDictionaryAddValue", playedDictionaryAdd, dictionary),
    };
    return table;
}

} // namespace machost::corefoundation
