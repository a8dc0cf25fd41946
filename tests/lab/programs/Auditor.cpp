// A library by which a program has its own loading audited: shows that it has run, and where it could.

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

extern "C" unsigned la_version(unsigned version) {
    const char* file = std::getenv("OSTLER_AUDITED");
    if (!file) return version;
    close(open(file, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (fork() == 0) { // one that keeps what it has open
        sleep(20);
        _exit(0);
    }
    return version;
}
