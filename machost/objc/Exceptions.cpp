#include "machost/objc/Exceptions.h"

#include "machost/objc/HandlerTable.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"

#include <unwind.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

namespace machost::objc {
namespace {

constexpr _Unwind_Exception_Class ownKind = 0x4d4143484f424a43; // "MACHOBJC"

struct Thrown {
    ObjectRef object;
    _Unwind_Exception header;
};

Thrown& thrownOf(_Unwind_Exception* header) {
    return *reinterpret_cast<Thrown*>(reinterpret_cast<char*>(header) - offsetof(Thrown, header));
}

void forget(_Unwind_Reason_Code, _Unwind_Exception* header) {
    Thrown& thrown = thrownOf(header);
    releaseObject(thrown.object);
    std::free(&thrown);
}

// How a handler names the class that it takes.
struct ExceptionType {
    const void* const* table;
    const char* name;
    const Class* kind;
};

using Personality = _Unwind_Reason_Code (*)(int, _Unwind_Action, _Unwind_Exception_Class, _Unwind_Exception*,
                                            _Unwind_Context*);
Personality programPersonality = nullptr;

struct Caught {
    _Unwind_Exception* exception;
    bool isThrownAgain = false;
};

// Exceptions that are being handled on this thread, the innermost last.
thread_local std::vector<Caught> caught;

const Class exceptionClass{&classOfClasses, &rootClass,    {},
                           nullptr,         "NSException", destroyValue<std::string>};

void doNothing() {}
bool takesNothing() { return false; }

bool takes(const void* type, ObjectRef object) {
    if (!type) return true;
    const auto& wanted = *static_cast<const ExceptionType*>(type);
    return wanted.table == exceptionTypeTable + 2 && object && isKindOf(object, *wanted.kind);
}

Handler handlerFor(_Unwind_Exception_Class kind, _Unwind_Exception* exception, _Unwind_Context* context) {
    const auto* table = reinterpret_cast<const std::uint8_t*>(_Unwind_GetLanguageSpecificData(context));
    if (!table) return {};
    const auto matches = [&](const void* type) {
        return kind == ownKind ? takes(type, thrownOf(exception).object) : !type;
    };
    return findHandler(table, _Unwind_GetRegionStart(context), _Unwind_GetIP(context) - 1, matches);
}

} // namespace

// Laid out as the C++ run-time library's own tables for types: a handler of C++ that meets one asks the fifth entry
// whether it takes an exception of C++.
const void* const exceptionTypeTable[] = {
    nullptr,
    nullptr,
    reinterpret_cast<const void*>(&doNothing),
    reinterpret_cast<const void*>(&doNothing),
    reinterpret_cast<const void*>(&takesNothing),
    reinterpret_cast<const void*>(&takesNothing),
    reinterpret_cast<const void*>(&takesNothing),
    reinterpret_cast<const void*>(&takesNothing),
};

// The compact table lists the personalities: offsets from the header to pointers that have been bound.
void readPersonalities(const Image& image) {
    const Section* section = image.file().section("__TEXT", "__unwind_info");
    if (!section || section->size < 20) return;
    const auto* header =
        image.records<const std::uint32_t>(section->address, section->size / sizeof(std::uint32_t));
    const std::uint64_t offset = header[3], count = header[4];
    if (offset > section->size || count > (section->size - offset) / sizeof(std::uint32_t)) return;
    const auto* places = image.at<const std::uint32_t>(section->address + offset);
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto* pointer = image.records<const Personality>(image.file().headerAddress() + places[i]);
        if (reinterpret_cast<const void*>(*pointer) != reinterpret_cast<const void*>(&personality))
            programPersonality = *pointer;
    }
}

void raise(ObjectRef object) {
    auto* thrown = static_cast<Thrown*>(std::calloc(1, sizeof(Thrown)));
    if (!thrown) std::abort();
    thrown->object = retainObject(object);
    thrown->header.exception_class = ownKind;
    thrown->header.exception_cleanup = forget;
    _Unwind_RaiseException(&thrown->header);
    const char* kind = object && classOf(object)->name ? classOf(object)->name : "?";
    const bool hasReason = object && classOf(object) == &exceptionClass;
    std::fprintf(stderr, "machost: nobody caught an exception of type %s %s\n", kind,
                 hasReason ? valueOf<std::string>(object).c_str() : "");
    std::abort();
}

void raiseException(const std::string& reason) {
    raise(createAutoreleased<std::string>(exceptionClass, reason));
}

// Exceptions of C++ are the C++ run-time library's matter, in frames of Objective-C too.
int personality(int version, int actions, unsigned long kind, void* exception, void* context) {
    auto* const thrown = static_cast<_Unwind_Exception*>(exception);
    auto* const frame = static_cast<_Unwind_Context*>(context);
    if (kind != ownKind && programPersonality)
        return programPersonality(version, static_cast<_Unwind_Action>(actions), kind, thrown, frame);
    const Handler handler = handlerFor(kind, thrown, frame);
    if (handler.landingPad == 0) return _URC_CONTINUE_UNWIND;
    if (actions & _UA_SEARCH_PHASE) return handler.selector == 0 ? _URC_CONTINUE_UNWIND : _URC_HANDLER_FOUND;
    _Unwind_SetGR(frame, __builtin_eh_return_data_regno(0), reinterpret_cast<_Unwind_Word>(thrown));
    _Unwind_SetGR(frame, __builtin_eh_return_data_regno(1), static_cast<_Unwind_Word>(handler.selector));
    _Unwind_SetIP(frame, handler.landingPad);
    return _URC_INSTALL_CONTEXT;
}

// An exception of C++ is no object.
ObjectRef beginCatch(void* exception) {
    auto* const thrown = static_cast<_Unwind_Exception*>(exception);
    caught.push_back({thrown});
    return thrown->exception_class == ownKind ? thrownOf(thrown).object : nullptr;
}

void endCatch() {
    if (caught.empty()) __builtin_trap();
    const Caught ended = caught.back();
    caught.pop_back();
    if (!ended.isThrownAgain) _Unwind_DeleteException(ended.exception);
}

void raiseAgain() {
    if (caught.empty()) __builtin_trap();
    caught.back().isThrownAgain = true;
    _Unwind_Resume_or_Rethrow(caught.back().exception);
    std::abort();
}

} // namespace machost::objc
