#include "machost/objc/Messages.h"

#include "machost/Imports.h"
#include "machost/loader/MissingImports.h"
#include "machost/objc/Classes.h"
#include "machost/objc/PlayedClass.h"

#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace machost::objc {
namespace {

struct KnownClass {
    std::unordered_map<Selector, const void*> ofClass, ofObjects;
    ObjectRef (*allocatePlayed)() = nullptr;
    ObjectRef (*allocateProgram)(const Class&) = nullptr;
};

using KnownClasses = std::unordered_map<const Class*, KnownClass>;

KnownClasses readPlayed() {
    KnownClasses all;
    for (const Library& library : playedLibraries())
        for (const PlayedClass* played : library.classes) {
            KnownClass& known = all[played->kind];
            known.allocatePlayed = played->allocate;
            for (const Method& method : played->ofClass)
                known.ofClass[selectorNamed(method.selector)] = method.call;
            for (const Method& method : played->ofObjects)
                known.ofObjects[selectorNamed(method.selector)] = method.call;
        }
    return all;
}

// Changes only before the program runs, so it is read without a lock.
KnownClasses& classes() {
    static auto& all = *new KnownClasses(readPlayed());
    return all;
}

[[noreturn]] void endUnplayed(const Class& kind, bool ofClass, const char* selector) {
    std::fprintf(stderr, "machost: nothing plays %c[%s %s]\n", ofClass ? '+' : '-',
                 kind.name ? kind.name : "?", selector);
    _exit(missingImportStatus);
}

const void* findIn(const std::unordered_map<Selector, const void*>& methods, Selector selector) {
    const auto found = methods.find(selector);
    return found == methods.end() ? nullptr : found->second;
}

} // namespace

Selector selectorNamed(const char* text) {
    static auto& lock = *new std::mutex;
    static auto& names = *new std::unordered_set<std::string>;
    const std::lock_guard<std::mutex> guard(lock);
    return names.emplace(text).first->c_str();
}

const void* findImplementation(const void* receiver, Selector selector) {
    const bool ofClass = isClass(receiver);
    const Class* kind = ofClass ? static_cast<const Class*>(receiver) : classOf(receiver);
    for (const Class* at = kind; at; at = at->superclass) {
        const auto known = classes().find(at);
        if (known == classes().end()) continue;
        const void* call = findIn(ofClass ? known->second.ofClass : known->second.ofObjects, selector);
        if (call) return call;
    }
    return nullptr;
}

const void* implementationOf(const void* receiver, Selector selector) {
    const void* call = findImplementation(receiver, selector);
    if (call) return call;
    const bool ofClass = isClass(receiver);
    // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): an object has a class
    endUnplayed(ofClass ? *static_cast<const Class*>(receiver) : *classOf(receiver), ofClass, selector);
}

bool isKindOf(const void* object, const Class& kind) {
    for (const Class* at = classOf(object); at; at = at->superclass)
        if (at == &kind) return true;
    return false;
}

void addProgramClass(const Class& kind, ObjectRef (*allocate)(const Class&)) {
    classes()[&kind].allocateProgram = allocate;
}

void addMethod(const Class& kind, bool ofClass, Selector selector, const void* call) {
    KnownClass& known = classes()[&kind]; // cppcheck-suppress constVariable // one of its maps is changed
    (ofClass ? known.ofClass : known.ofObjects)[selector] = call;
}

ObjectRef allocate(const Class& kind) {
    const auto known = classes().find(&kind);
    if (known != classes().end() && known->second.allocateProgram) return known->second.allocateProgram(kind);
    if (known != classes().end() && known->second.allocatePlayed) return known->second.allocatePlayed();
    endUnplayed(kind, true, "alloc");
}

const void* ownMethod(const Class& kind, Selector selector) {
    const auto known = classes().find(&kind);
    return known == classes().end() ? nullptr : findIn(known->second.ofObjects, selector);
}

} // namespace machost::objc
