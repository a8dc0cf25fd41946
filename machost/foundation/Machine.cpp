// NSHost and the user's home.

#include "machost/world/Machine.h"
#include "machost/corefoundation/Strings.h"
#include "machost/foundation/Library.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"

namespace machost::foundation {
namespace {

using objc::Selector;

const Class hostClass{&classOfClasses, &rootClass, {}, nullptr, "NSHost", nullptr};

ObjectRef currentHost(ObjectRef, Selector) { return objc::createAutoreleased<int>(hostClass); }

ObjectRef name(ObjectRef, Selector) {
    const auto name = world::hostName();
    return name ? objc::autorelease(corefoundation::makeString(*name)) : nullptr;
}

ObjectRef playedHome() { return objc::autorelease(corefoundation::makeString(world::homeDirectory())); }

} // namespace

const ImportTable& machineImports() {
    static const auto& table = *new ImportTable{
        variable("_OBJC_CLASS_$_NSHost", &hostClass, "NSHost.h"),
        function("_NSHomeDirectory", playedHome, "NSPathUtilities.h"),
    };
    return table;
}

const objc::PlayedClass& playedHostClass() {
    static const auto& played = *new objc::PlayedClass{&hostClass,
                                                       "NSHost.h, the current host alone",
                                                       {objc::method("currentHost", currentHost)},
                                                       {objc::method("name", name)}};
    return played;
}

} // namespace machost::foundation
