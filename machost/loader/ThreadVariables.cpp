#include "machost/loader/ThreadVariables.h"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

// The calling thread's block, null before the first touch. The function below reads it.
extern "C" {
__attribute__((visibility("hidden"), used, tls_model("initial-exec"))) thread_local char* machostThreadBlock =
    nullptr;
__attribute__((visibility("hidden"), used)) void machostMakeThreadBlock();
void machostThreadVariable();
}

// What a descriptor names: its address comes in rdi, the variable's goes out in rax, all else stays.
__asm__(R"(
    .text
    .type machostThreadVariable, @function
machostThreadVariable:
    movq machostThreadBlock@gottpoff(%rip), %rax
    movq %fs:(%rax), %rax
    testq %rax, %rax
    je 1f
    addq 16(%rdi), %rax
    ret
1:  pushq %rbp
    movq %rsp, %rbp
    pushq %rdi
    pushq %rsi
    pushq %rdx
    pushq %rcx
    pushq %r8
    pushq %r9
    pushq %r10
    pushq %r11
    subq $512, %rsp
    andq $-16, %rsp
    fxsave (%rsp)
    call machostMakeThreadBlock
    fxrstor (%rsp)
    leaq -64(%rbp), %rsp
    popq %r11
    popq %r10
    popq %r9
    popq %r8
    popq %rcx
    popq %rdx
    popq %rsi
    popq %rdi
    popq %rbp
    jmp machostThreadVariable
    .size machostThreadVariable, . - machostThreadVariable
)");

namespace {

struct Descriptor {
    void (*function)();
    std::uint64_t key;
    std::uint64_t offset;
};

struct Template {
    const char* content = nullptr;
    std::size_t contentSize = 0;
    std::size_t size = 0;
    std::size_t alignment = 16;
    pthread_key_t key = 0;
} variables;

void freeBlock(void* block) {
    machostThreadBlock = nullptr;
    std::free(block);
}

} // namespace

void machostMakeThreadBlock() {
    const std::size_t size =
        (variables.size + variables.alignment) / variables.alignment * variables.alignment;
    auto* block = static_cast<char*>(std::aligned_alloc(variables.alignment, size));
    if (!block) std::abort();
    std::memset(block, 0, size);
    if (variables.contentSize) std::memcpy(block, variables.content, variables.contentSize);
    machostThreadBlock = block;
    pthread_setspecific(variables.key, block);
}

namespace machost {

void installThreadVariables(const Image& image) {
    const auto regular = image.file().sectionsOfType(format::threadLocalRegular);
    const auto zeroFill = image.file().sectionsOfType(format::threadLocalZeroFill);
    std::uint64_t first = ~std::uint64_t{0}, end = 0;
    for (const auto& kind : {regular, zeroFill}) {
        for (const Section* section : kind) {
            first = std::min(first, section->address);
            end = std::max(end, section->address + section->size);
            variables.alignment = std::max(variables.alignment, std::size_t{1} << section->alignment);
        }
    }
    if (first >= end) return;
    variables.size = end - first;
    for (const Section* section : regular)
        variables.contentSize = std::max(variables.contentSize, section->address + section->size - first);
    variables.content = image.records<const char>(first, end - first);
    if (pthread_key_create(&variables.key, freeBlock) != 0)
        throw FormatError("there is no room for its thread variables");
    for (const Section* section : image.file().sectionsOfType(format::threadLocalVariables)) {
        const std::uint64_t count = section->size / sizeof(Descriptor);
        auto* descriptor = image.records<Descriptor>(section->address, count, format::protectionWrite);
        for (std::uint64_t i = 0; i < count; ++i) {
            if (descriptor[i].offset >= variables.size)
                throw FormatError("a thread variable lies outside its block");
            descriptor[i].function = machostThreadVariable;
        }
    }
}

} // namespace machost
