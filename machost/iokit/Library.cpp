// The registry of devices, of which there is the root with the machine's identifier.

#include "machost/iokit/Library.h"

#include "machost/corefoundation/Strings.h"
#include "machost/world/Machine.h"

#include <atomic>
#include <cstdio>
#include <cstring>

namespace machost::iokit {
namespace {

using corefoundation::isString;
using corefoundation::makeString;
using corefoundation::textOf;

const std::uint32_t masterPort = 0;

constexpr std::uint32_t rootEntry = 0x707;
constexpr std::int32_t done = 0, invalidName = 0x0f; // KERN_INVALID_NAME

std::atomic<int> rootReferences{0};

std::uint32_t playedEntryFromPath(std::uint32_t, const char* path) {
    if (std::strcmp(path, "IOService:/") != 0) return 0;
    ++rootReferences;
    return rootEntry;
}

ObjectRef playedProperty(std::uint32_t entry, const void* key, const void*, std::uint32_t) {
    if (entry != rootEntry || rootReferences <= 0 || !isString(key) || textOf(key) != "IOPlatformUUID")
        return nullptr;
    const auto uuid = world::platformUuid();
    return uuid ? makeString(*uuid) : nullptr;
}

std::int32_t playedRelease(std::uint32_t entry) {
    if (entry != rootEntry || rootReferences <= 0) return invalidName;
    --rootReferences;
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
    if (rootReferences > 0)
        std::fprintf(stderr, "machost: %d IOKit entries never released\n", rootReferences.load());
    return rootReferences;
}

} // namespace machost::iokit
