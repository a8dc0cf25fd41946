// Run under machost: writes as many letters as its word has into an array of 16 on the stack, behind which the compiler
// has put a guard. A word that fits comes back; a longer one must end the process before the function returns.

#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

// Byte by byte through a pointer that the compiler knows nothing of, as a mistake in a reader would.
__attribute__((noinline)) void copyUnbounded(volatile char* to, const char* from) {
    while ((*to++ = *from++)) {
    }
}

__attribute__((noinline)) void copyAndShow(const char* word) {
    char room[16];
    copyUnbounded(room, word);
    std::printf("%s\n", room);
    std::fflush(stdout);
}

// Whoever smashes a stack may have installed this.
void goOn(int) { _exit(0); }

} // namespace

int main(int, char** words) {
    std::signal(SIGABRT, goOn);
    copyAndShow(words[1]);
    std::printf("returned\n");
    return 0;
}
