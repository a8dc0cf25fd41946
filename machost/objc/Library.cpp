#include "machost/objc/Library.h"

#include "machost/objc/Classes.h"
#include "machost/objc/Exceptions.h"
#include "machost/objc/PlayedClass.h"
#include "machost/objc/Pools.h"

#include <cstdio>
#include <cstdlib>

// The message's arguments stay where they are while its method is looked for, which is then jumped to. A message to
// nil answers zero in every register of an answer.
asm(R"(
    .text
    .globl machost_sendMessage
    .type machost_sendMessage, @function
machost_sendMessage:
    .cfi_startproc
    endbr64
    testq %rdi, %rdi
    je 1f
    pushq %rbp
    .cfi_def_cfa_offset 16
    .cfi_offset %rbp, -16
    movq %rsp, %rbp
    .cfi_def_cfa_register %rbp
    subq $192, %rsp
    movq %rdi, (%rsp)
    movq %rsi, 8(%rsp)
    movq %rdx, 16(%rsp)
    movq %rcx, 24(%rsp)
    movq %r8, 32(%rsp)
    movq %r9, 40(%rsp)
    movq %rax, 48(%rsp)
    movaps %xmm0, 64(%rsp)
    movaps %xmm1, 80(%rsp)
    movaps %xmm2, 96(%rsp)
    movaps %xmm3, 112(%rsp)
    movaps %xmm4, 128(%rsp)
    movaps %xmm5, 144(%rsp)
    movaps %xmm6, 160(%rsp)
    movaps %xmm7, 176(%rsp)
    call machost_findMethod
    movq %rax, %r11
    movq (%rsp), %rdi
    movq 8(%rsp), %rsi
    movq 16(%rsp), %rdx
    movq 24(%rsp), %rcx
    movq 32(%rsp), %r8
    movq 40(%rsp), %r9
    movq 48(%rsp), %rax
    movaps 64(%rsp), %xmm0
    movaps 80(%rsp), %xmm1
    movaps 96(%rsp), %xmm2
    movaps 112(%rsp), %xmm3
    movaps 128(%rsp), %xmm4
    movaps 144(%rsp), %xmm5
    movaps 160(%rsp), %xmm6
    movaps 176(%rsp), %xmm7
    leave
    .cfi_def_cfa %rsp, 8
    jmp *%r11
1:  xorl %eax, %eax
    xorl %edx, %edx
    xorps %xmm0, %xmm0
    xorps %xmm1, %xmm1
    ret
    .cfi_endproc
    .size machost_sendMessage, .-machost_sendMessage
)");

extern "C" void machost_sendMessage();
extern "C" const void* machost_findMethod(const void* receiver, const char* selector);

const void* machost_findMethod(const void* receiver, const char* selector) {
    return machost::objc::implementationOf(receiver, selector);
}

namespace machost::objc {
namespace {

ObjectRef playedAlloc(const Class* kind) { return kind ? allocate(*kind) : nullptr; }

ObjectRef playedRetainAutorelease(ObjectRef object) { return autorelease(retainObject(object)); }

void playedStoreStrong(ObjectRef* place, ObjectRef object) {
    ObjectRef before = *place;
    *place = retainObject(object);
    releaseObject(before);
}

// A result that nobody wants to keep stays with its pool.
ObjectRef playedClaim(ObjectRef object) { return object; }

// A collection that is changed while it is walked.
void playedMutation(ObjectRef) {
    std::fputs("machost: a collection was changed while it was enumerated\n", stderr);
    std::abort();
}

// Where the Mac keeps what it has looked up; nothing reads it here.
const void* emptyCache[2];

ObjectRef answerInit(ObjectRef self, Selector) { return self; }
const void* answerClass(ObjectRef self, Selector) { return isClass(self) ? self : classOf(self); }
signed char answerIsKind(ObjectRef self, Selector, const Class* kind) {
    return kind && isKindOf(self, *kind) ? 1 : 0;
}

const PlayedClass& objectClass() {
    static const auto& played = *new PlayedClass{
        &rootClass,
        "NSObject.mm of objc4",
        {method("class", answerClass)},
        {method("init", answerInit), method("class", answerClass), method("isKindOfClass:", answerIsKind)}};
    return played;
}

const ImportTable& runtimeImports() {
    constexpr const char* messages = "objc-msg-x86_64.s of objc4, without its cache";
    constexpr const char* counts = "NSObject.mm of objc4, without handing results over in registers";
    constexpr const char* exceptions = "objc-exception.mm of objc4; exceptions are of a kind of their own";
    static const auto& table = *new ImportTable{
        variable("_OBJC_CLASS_$_NSObject", &rootClass, "NSObject.mm of objc4"),
        variable("_OBJC_METACLASS_$_NSObject", &classOfClasses, "NSObject.mm of objc4; one for all classes"),
        variable("__objc_empty_cache", emptyCache, "objc-cache.mm of objc4; never read"),
        function("_objc_msgSend", machost_sendMessage, messages),
        function("_objc_alloc", playedAlloc, counts),
        function("_objc_retain", retainObject, counts),
        function("_objc_release", releaseObject, counts),
        function("_objc_retainAutorelease", playedRetainAutorelease, counts),
        function("_objc_retainAutoreleaseReturnValue", playedRetainAutorelease, counts),
        function("_objc_retainAutoreleasedReturnValue", retainObject, counts),
        function("_objc_unsafeClaimAutoreleasedReturnValue", playedClaim, counts),
        function("_objc_storeStrong", playedStoreStrong, counts),
        function("_objc_autoreleasePoolPush", pushPool, counts),
        function("_objc_autoreleasePoolPop", popPool, counts),
        function("_objc_enumerationMutation", playedMutation, "objc-runtime.mm of objc4"),
        function("___objc_personality_v0", personality, exceptions),
        variable("_objc_ehtype_vtable", exceptionTypeTable, exceptions),
        function("_objc_begin_catch", beginCatch, exceptions),
        function("_objc_end_catch", endCatch, exceptions),
        function("_objc_exception_throw", raise, exceptions),
        function("_objc_exception_rethrow", raiseAgain, exceptions),
    };
    return table;
}

} // namespace

Library library() { return {"/usr/lib/libobjc.A.dylib", {&runtimeImports()}, {&objectClass()}}; }

} // namespace machost::objc
