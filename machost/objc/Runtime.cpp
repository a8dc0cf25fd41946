#include "machost/objc/Runtime.h"

#include "machost/objc/Classes.h"
#include "machost/objc/Exceptions.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>
#include <type_traits>

namespace machost::objc {
namespace {

// As the compiler lays them out: class_ro_t, method_list_t and method_t of objc4's objc-runtime-new.h.
struct ProgramClass {
    const ProgramClass* isa;
    const void* superclass;
    const void* cache[2];
    std::uint64_t data;
};
struct ClassData {
    std::uint32_t flags, instanceStart, instanceSize, reserved;
    const void* ivarLayout;
    const char* name;
    const void* methods;
    const void* rest[4];
};
static_assert(sizeof(ProgramClass) == 40 && sizeof(ClassData) == 72 && offsetof(ClassData, methods) == 32);
struct ProgramMethod {
    const char* name;
    const char* types;
    const void* call;
};
struct MethodList {
    std::uint32_t entrySize, count;
};
constexpr std::uint32_t relativeMethods = 0x80000000, entrySizeMask = 0xfffc;

// The program's classes, each with the one that stands in its place here, which has room for a name.
using Twins = std::map<const void*, Class*>;

const ClassData& dataOf(const Image& image, const ProgramClass* kind) {
    const std::uint64_t data = image.pointed(kind)->data & ~std::uint64_t{7};
    return *image.pointed(reinterpret_cast<const ClassData*>(data));
}

std::map<const Class*, std::size_t>& sizes() {
    static auto& all = *new std::map<const Class*, std::size_t>;
    return all;
}

void construct(ObjectRef object, const Class* kind) {
    if (!kind) return;
    construct(object, kind->superclass);
    const Selector selector = selectorNamed(".cxx_construct");
    if (auto* const call = const_cast<void*>(ownMethod(*kind, selector)))
        reinterpret_cast<ObjectRef (*)(ObjectRef, Selector)>(call)(object, selector);
}

ObjectRef allocateInstance(const Class& kind) {
    ObjectRef object = allocateObject(kind, sizes().at(&kind));
    construct(object, &kind);
    return object;
}

void destroyInstance(void* object) {
    const Selector selector = selectorNamed(".cxx_destruct");
    for (const Class* kind = classOf(object); kind; kind = kind->superclass)
        if (auto* const call = const_cast<void*>(ownMethod(*kind, selector)))
            reinterpret_cast<void (*)(ObjectRef, Selector)>(call)(object, selector);
}

void addMethods(const Image& image, const Class& twin, bool ofClass, const void* methods) {
    if (!methods) return;
    const auto* list = image.pointed(static_cast<const MethodList*>(methods));
    if (list->entrySize & relativeMethods || (list->entrySize & entrySizeMask) != sizeof(ProgramMethod))
        throw std::runtime_error("a class has its methods in a form that is not played");
    const auto* method = image.pointed(reinterpret_cast<const ProgramMethod*>(list + 1), list->count);
    for (std::uint32_t i = 0; i < list->count; ++i)
        addMethod(twin, ofClass, selectorNamed(image.text(method[i].name)),
                  image.pointed(static_cast<const char*>(method[i].call), 1, format::protectionExecute));
}

Class* makeTwin(const Image& image, const ProgramClass* kind) {
    const ClassData& data = dataOf(image, kind);
    if (data.instanceSize < sizeof(void*))
        throw FormatError("a class has objects without room for their class");
    auto* twin = new Class;
    twin->isa = &classOfClasses;
    twin->name = image.text(data.name);
    twin->destroy = destroyInstance;
    sizes()[twin] = data.instanceSize;
    addProgramClass(*twin, allocateInstance);
    addMethods(image, *twin, false, data.methods);
    addMethods(image, *twin, true, dataOf(image, kind->isa).methods);
    return twin;
}

bool isBound(const Image& image, const void* const* pointer) {
    const std::uint64_t address = reinterpret_cast<std::uint64_t>(pointer) - image.here(0);
    const auto& binds = image.file().binds();
    return std::any_of(binds.begin(), binds.end(), [&](const Bind& bind) { return bind.address == address; });
}

// A class is below another of the program's, below one that is bound, or below none.
void checkAncestors(const Image& image, const Twins& twins) {
    for (const auto& known : twins) {
        const void* at = known.first;
        for (std::size_t steps = 0; twins.count(at); ++steps) {
            if (steps == twins.size()) throw FormatError("a class is its own ancestor");
            const void* const& superclass = static_cast<const ProgramClass*>(at)->superclass;
            if (superclass && !twins.count(superclass) && !isBound(image, &superclass))
                throw FormatError("a class is below something that is no class");
            at = superclass;
        }
    }
}

template <class Pointer>
struct Pointers {
    Pointer* first = nullptr;
    std::size_t count = 0;
    Pointer* begin() const { return first; }
    Pointer* end() const { return first + count; }
};

// The pointers of a section, whichever of the data segments it lies in.
template <class Pointer>
Pointers<Pointer> pointersOf(const Image& image, const char* section) {
    constexpr bool isRead = std::is_const_v<Pointer>;
    constexpr auto protection = isRead ? format::protectionRead : format::protectionWrite;
    for (const char* segment : {"__DATA", "__DATA_CONST"})
        if (const Section* found = image.file().section(segment, section)) {
            const std::uint64_t count = found->size / sizeof(void*);
            return {image.records<Pointer>(found->address, count, protection), count};
        }
    return {};
}

void refuseUnplayed(const Image& image) {
    for (const char* section : {"__objc_catlist", "__objc_superrefs", "__objc_stublist"})
        if (pointersOf<const void* const>(image, section).count > 0)
            throw std::runtime_error(std::string(section) + " of Objective-C is not played");
}

} // namespace

void registerImage(const Image& image) {
    refuseUnplayed(image);
    readPersonalities(image);
    for (const char*& selector : pointersOf<const char*>(image, "__objc_selrefs"))
        selector = selectorNamed(image.text(selector));
    Twins twins;
    for (const auto* kind : pointersOf<const ProgramClass* const>(image, "__objc_classlist"))
        twins[kind] = makeTwin(image, kind);
    checkAncestors(image, twins);
    for (const auto& [kind, twin] : twins) {
        const void* superclass = static_cast<const ProgramClass*>(kind)->superclass;
        const auto own = twins.find(superclass);
        twin->superclass = own != twins.end() ? own->second : static_cast<const Class*>(superclass);
    }
    for (const void*& reference : pointersOf<const void*>(image, "__objc_classrefs")) {
        const auto own = twins.find(reference);
        if (own != twins.end()) reference = own->second;
    }
}

} // namespace machost::objc
