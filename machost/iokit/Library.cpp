// The registry of devices, of which there is the root with the machine's identifier.

#include "machost/iokit/Library.h"

#include "machost/corefoundation/Strings.h"
#include "machost/world/Machine.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

namespace machost::iokit {
namespace {

using corefoundation::isString;
using corefoundation::makeString;
using corefoundation::textOf;

const std::uint32_t masterPort = 0;

constexpr std::uint32_t rootEntry = 0x707;
constexpr std::int32_t done = 0, invalidName = 0x0f; // KERN_INVALID_NAME

// The thread of each reference to the root. Guarded by lockObjects().
std::multiset<pid_t>& rootReferences() {
    static auto& one = *new std::multiset<pid_t>;
    return one;
}

bool isHeld(std::uint32_t entry) {
    const auto lock = lockObjects();
    return entry == rootEntry && !rootReferences().empty();
}

std::uint32_t playedEntryFromPath(std::uint32_t, const char* path) {
    if (std::strcmp(path, "IOService:/") != 0) return 0;
    const auto lock = lockObjects();
    rootReferences().insert(gettid());
    return rootEntry;
}

ObjectRef playedProperty(std::uint32_t entry, const void* key, const void*, std::uint32_t) {
    if (!isHeld(entry) || !isString(key) || textOf(key) != "IOPlatformUUID") return nullptr;
    const auto uuid = world::platformUuid();
    return uuid ? makeString(*uuid) : nullptr;
}

// One that this thread took goes before another's.
std::int32_t playedRelease(std::uint32_t entry) {
    const auto lock = lockObjects();
    auto& held = rootReferences();
    if (entry != rootEntry || held.empty()) return invalidName;
    const auto own = held.find(gettid());
    held.erase(own == held.end() ? held.begin() : own);
    return done;
}

const ImportTable& registryImports() {
    constexpr const char* source = "IOKitLib.c of IOKitUser";
    static const auto& table = *new ImportTable{
        variable("_kIOMasterPortDefault", &masterPort, source),
        function("_IORegistryEntryFromPath", playedEntryFromPath, source),
        function("_IORegistryEntryCreateCFProperty", playedProperty, source),
        function("_IOObjectRelease", playedRelease, source),
    };
    return table;
}

} // namespace

Library library() {
    return {"/System/Library/Frameworks/IOKit.framework/Versions/A/IOKit", {&registryImports()}};
}

int reportLeaks() {
    const auto lock = lockObjects();
    const auto& held = rootReferences();
    const auto left = static_cast<int>(std::count_if(held.begin(), held.end(), isOwnThreadOrGone));
    if (left > 0) std::fprintf(stderr, "machost: %d IOKit entries never released\n", left);
    return left;
}

} // namespace machost::iokit
