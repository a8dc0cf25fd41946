#include "machost/corefoundation/Collections.h"

#include "machost/corefoundation/Library.h"
#include "machost/corefoundation/Strings.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"

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

// A key that is there already keeps its value.
void playedDictionaryAdd(void* dictionary, const void* key, const void* value) {
    if (!valueIn(dictionary, key))
        valueOf<Pairs>(dictionary).emplace_back(Held::retain(key), Held::retain(value));
}

// NSFastEnumerationState
struct Enumeration {
    std::uint64_t state;
    ObjectRef* items;
    unsigned long* mutations;
    unsigned long extra[5];
};
static_assert(sizeof(Enumeration) == 64);

ObjectRef arrayWithObjects(ObjectRef, objc::Selector, const void* const* objects, std::uint64_t count) {
    return objc::autorelease(makeArray(std::vector<const void*>(objects, objects + count)));
}

std::uint64_t arrayEnumerate(ObjectRef self, objc::Selector, Enumeration* at, ObjectRef* room,
                             std::uint64_t size) {
    static unsigned long neverChanged = 0;
    const auto& elements = elementsOf(self);
    std::uint64_t count = 0;
    for (; count < size && at->state < elements.size(); ++count)
        room[count] = elements[at->state++].get();
    at->items = room;
    at->mutations = &neverChanged;
    return count;
}

ObjectRef dictionaryObject(ObjectRef self, objc::Selector, const void* key) {
    return const_cast<void*>(valueIn(self, key));
}

} // namespace

bool areEqual(const void* one, const void* other) {
    return one == other || (isString(one) && isString(other) && textOf(one) == textOf(other));
}

const void* valueIn(const void* dictionary, const void* key) {
    for (const auto& [known, value] : valueOf<Pairs>(dictionary))
        if (areEqual(known.get(), key)) return value.get();
    return nullptr;
}

ObjectRef makeDictionary(Pairs pairs) { return createObject<Pairs>(dictionaryClass, std::move(pairs)); }

const Class arrayClass{&classOfClasses, &rootClass, {}, nullptr, "CFArray", destroyValue<Elements>};
const Class dictionaryClass{&classOfClasses, &rootClass, {}, nullptr, "CFDictionary", destroyValue<Pairs>};

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
        variable("_OBJC_CLASS_$_NSArray", &arrayClass, "NSArray.h; one class for all arrays"),
        variable("_kCFTypeArrayCallBacks", &arrayCallbacks, array),
        variable("_kCFTypeDictionaryKeyCallBacks", &keyCallbacks, dictionary),
        variable("_kCFTypeDictionaryValueCallBacks", &valueCallbacks, dictionary),
        function("_CFArrayCreate", playedArrayCreate, array),
        function("_CFDictionaryCreateMutable", playedDictionaryCreate, dictionary),
        function("_CFDictionaryAddValue", playedDictionaryAdd, dictionary),
    };
    return table;
}

const objc::PlayedClass& playedArrayClass() {
    static const auto& played =
        *new objc::PlayedClass{&arrayClass,
                               "NSArray.h and NSEnumerator.h",
                               {objc::method("arrayWithObjects:count:", arrayWithObjects)},
                               {objc::method("countByEnumeratingWithState:objects:count:", arrayEnumerate)}};
    return played;
}

const objc::PlayedClass& playedDictionaryClass() {
    static const auto& played = *new objc::PlayedClass{
        &dictionaryClass, "NSDictionary.h", {}, {objc::method("objectForKeyedSubscript:", dictionaryObject)}};
    return played;
}

} // namespace machost::corefoundation
