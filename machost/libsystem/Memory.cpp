// Memory, and the few services that read only their arguments.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"

#include <cstdlib>
#include <cstring>

namespace machost::libsystem {
namespace {

void playedZero(void* memory, std::size_t size) { std::memset(memory, 0, size); }

// The generator of FreeBSD's rand, without which a seed would give other numbers.
unsigned randomState = 1;

int playedRand() {
    constexpr long multiplier = 16807, modulus = 2147483647, quotient = 127773, rest = 2836;
    const long state = randomState == 0 ? 123459876 : static_cast<long>(randomState);
    long next = multiplier * (state % quotient) - rest * (state / quotient);
    if (next < 0) next += modulus;
    randomState = static_cast<unsigned>(next);
    return static_cast<int>(randomState % (static_cast<unsigned>(RAND_MAX) + 1));
}

void playedSrand(unsigned seed) { randomState = seed; }

int playedPosixMemalign(void** result, std::size_t alignment, std::size_t size) {
    return macError(posix_memalign(result, alignment, size));
}

void playedQsort(void* base, std::size_t count, std::size_t width, int (*compare)(const void*, const void*)) {
    std::qsort(base, count, width, compare);
}

} // namespace

const ImportTable& memoryImports() {
    static const auto& table = *new ImportTable{
        function("_malloc", translated<&std::malloc>, "malloc(3) of libmalloc"),
        function("_calloc", translated<&std::calloc>, "calloc(3) of libmalloc"),
        function("_realloc", translated<&std::realloc>, "realloc(3) of libmalloc"),
        function("_free", &std::free, "free(3) of libmalloc"),
        function("_posix_memalign", playedPosixMemalign, "posix_memalign(3) of libmalloc"),
        function("___bzero", playedZero, "bzero(3) of libplatform"),
        function("_qsort", playedQsort, "qsort(3) of Libc; which of two equal elements comes first is open"),
        function("_rand", playedRand, "rand.c of Libc"),
        function("_srand", playedSrand, "rand.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
