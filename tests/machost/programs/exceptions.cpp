// Run under machost: exceptions through frames of every layout, through this system's own frames, and to handlers of
// other types; thread variables of two threads; initialisers and ends of objects. Prints what came, a line each.

#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Noisy {
    const char* name;
    explicit Noisy(const char* given) : name(given) { std::printf("made %s\n", name); }
    ~Noisy() { std::printf("gone %s\n", name); }
};

Noisy global("global");
thread_local int counter = 40;
thread_local std::string text = "thread's own";

__attribute__((noinline)) int thrower(int depth, const std::string& what) {
    const Noisy local("local");
    if (depth == 0) throw std::runtime_error(what);
    volatile char room[3000] = {};
    return thrower(depth - 1, what) + room[depth];
}

int compare(const void*, const void*) { throw 17; }

void* onThread(void*) {
    counter += 1;
    text += " on a thread";
    std::printf("%d %s\n", counter, text.c_str());
    try {
        thrower(1, "thrown on a thread");
    } catch (const std::exception& error) {
        std::printf("caught %s\n", error.what());
    }
    return nullptr;
}

} // namespace

int main(int argc, char** argv) {
    try {
        thrower(2, "thrown");
    } catch (const std::logic_error&) {
        std::puts("caught by the wrong handler");
    } catch (const std::runtime_error& error) {
        std::printf("caught %s\n", error.what());
    }
    try {
        int numbers[] = {2, 1};
        qsort(numbers, 2, sizeof *numbers, compare);
    } catch (int number) {
        std::printf("caught %d through the system's sort\n", number);
    }
    try {
        std::vector<int>().at(3);
    } catch (const std::out_of_range&) {
        std::puts("caught the library's own");
    }
    pthread_t thread;
    pthread_create(&thread, nullptr, onThread, nullptr);
    pthread_join(thread, nullptr);
    std::printf("%d %s, %d words, named %s\n", counter, text.c_str(), argc, argv[0]);
    return argc;
}
