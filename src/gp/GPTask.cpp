#include "gp/GPTask.h"

#include "gp/GPArray.h"
#include "gp/GPAutoReleasePool.h"
#include "gp/GPFilesystem.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/ChildExec.h"
#include "platform/ChildProcess.h"
#include "platform/Clock.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// Neither pipe is closed by an exec. A pipe that cannot be made is not examined: its ends are no
// descriptors, and every use of them fails.
struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;

    Pipe() {
        int ends[2];
        if (pipe(ends) != 0) return;
        readEnd = ends[0];
        writeEnd = ends[1];
    }

    void closeBoth() {
        close(readEnd);
        close(writeEnd);
    }
};

// Whether the pipe has something to read now. By poll, since a descriptor can be above what select takes.
bool isready(const Pipe& pipe) {
    pollfd waited = {pipe.readEnd, POLLIN, 0};
    return poll(&waited, 1, 0) > 0;
}

// The failure report that waits in the pipe, as a new string, with both ends closed then; null if none does.
GPString* readFailPipe(Pipe& pipe) {
    int waiting = 0;
    if (ioctl(pipe.readEnd, FIONREAD, &waiting) != 0 || waiting < 1) return nullptr;
    char text[256] = {};
    if (read(pipe.readEnd, text, sizeof text - 1) < 1) return nullptr;
    pipe.closeBoth();
    return new GPString(text);
}

// The child's output as a new string, or null. The end of an output is only seen by a short chunk, so one
// that is a multiple of the chunk blocks here: the other end of the pipe is open in this process too.
GPString* readOutput(const Pipe& pipe) {
    constexpr std::size_t chunkSize = 4096;
    GPString* output = nullptr;
    ssize_t got;
    do {
        char chunk[chunkSize + 1] = {};
        got = read(pipe.readEnd, chunk, chunkSize);
        if (got < 1) break;
        if (output)
            output->append(chunk);
        else
            output = new GPString(chunk);
    } while (got == static_cast<ssize_t>(chunkSize));
    return output;
}

// The first element of PATH with that program in it, with the program's name behind; empty if there is none.
std::string searchPath(const char* program) {
    std::string detected;
    const char* variable = std::getenv("PATH");
    if (!variable) return detected;
    auto* pool = new GPAutoReleasePool;
    {
        const auto text = Owned<GPString>::adopt(new GPString(variable));
        const auto elements = Owned<GPArray>::adopt(text->split(":"));
        for (int i = 0; i < elements->count() && detected.empty(); ++i) {
            auto* candidate = static_cast<GPString*>(elements->objectAtIndex(i));
            candidate->appendFormat("/%s", program);
            if (ifExist(candidate->cstr())) detected = candidate->cstr();
        }
    }
    pool->drain();
    return detected;
}

[[noreturn]] void reportFailure(int error, const char* path, Pipe& failPipe, platform::ExecSign& sign) {
    char report[1024] = {};
    // NOLINTNEXTLINE(cert-err33-c): a path too long for the report is cut
    std::snprintf(report, sizeof report, "GPTask exec failure: %d. Path that was detected: %s\n", error,
                  path ? path : "(null)");
    logf("!!! Error: childfork - %s", report);
    [[maybe_unused]] const ssize_t written = write(failPipe.writeEnd, report, std::strlen(report) - 1);
    failPipe.closeBoth();
    sign.execFailed();
    std::exit(1); // NOLINT(concurrency-mt-unsafe): the forked child has this one thread
}

// What the forked child does; it goes on with the calling thread alone.
[[noreturn]] void childFork(Pipe& ioPipe, const char* commandLine, Pipe& failPipe, platform::ExecSign& sign) {
    // NOLINTNEXTLINE(clang-analyzer-unix.StdCLibraryFunctions): without a pipe it keeps what it has
    dup2(ioPipe.readEnd, STDIN_FILENO);
    dup2(ioPipe.writeEnd, STDOUT_FILENO);
    dup2(ioPipe.writeEnd, STDERR_FILENO);
    if (ioPipe.readEnd > STDERR_FILENO) close(ioPipe.readEnd);
    if (ioPipe.writeEnd > STDERR_FILENO) close(ioPipe.writeEnd);

    GPArray* words = GPTask::splitCommandLine(commandLine);
    std::vector<char*> arguments;
    arguments.reserve(static_cast<std::size_t>(words->count()) + 1);
    for (int i = 0; i < words->count(); ++i)
        arguments.push_back(const_cast<char*>(static_cast<GPString*>(words->objectAtIndex(i))->cstr()));
    arguments.push_back(nullptr);

    const char* program = arguments[0];
    std::string detected;
    if (ifExist(program)) {
        execv(program, arguments.data());
    } else if (program) {
        detected = searchPath(program);
        if (!detected.empty()) execv(detected.c_str(), arguments.data());
    }
    reportFailure(errno, detected.empty() ? nullptr : detected.c_str(), failPipe, sign);
}

} // namespace

void GPTask::waitOn(bool wait) { wait_ = wait; }

void GPTask::showWindow(bool show) { show_ = show; }

GPString* GPTask::run(const char* commandLine) {
    Pipe ioPipe;
    Pipe failPipe;
    platform::ExecSign sign;
    const pid_t child = platform::forkChild();
    if (child < 0) {
        std::puts("error forking");
        ioPipe.closeBoth();
        failPipe.closeBoth();
        return nullptr;
    }
    if (child == 0) childFork(ioPipe, commandLine, failPipe, sign);

    platform::ExecState state = sign.look(child);
    while (state == platform::ExecState::notYet) {
        platform::clock().sleepMicroseconds(1);
        if (GPString* report = readFailPipe(failPipe)) {
            logf("Error: GPTask set id failed. error=%s", report->cstr());
            return report;
        }
        state = sign.look(child);
    }
    // From a child that never became a program the pipe of its output stays open.
    if (state == platform::ExecState::ended) return isready(failPipe) ? readFailPipe(failPipe) : nullptr;

    failPipe.closeBoth();
    if (!wait_) return nullptr;
    // The output is only read afterwards, so a child that fills the pipe blocks both sides.
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    GPString* output = isready(ioPipe) ? readOutput(ioPipe) : nullptr;
    ioPipe.closeBoth();
    return output;
}

GPString* GPTask::task(const char* commandLine, bool wait, bool show) {
    const auto made = Owned<GPTask>::adopt(new GPTask);
    made->waitOn(wait);
    made->showWindow(show);
    return made->run(commandLine);
}

GPArray* GPTask::splitCommandLine(const char* commandLine) {
    auto* words = new GPArray;
    std::string text(commandLine ? commandLine : "");
    char* word = text.data();
    while (*word) {
        char* end = const_cast<char*>(nextws(word));
        if (*word == '\'' || *word == '"') {
            const char quote = *word++;
            if (char* closing = std::strchr(word, quote)) end = closing;
        }
        char* rest = end;
        if (*end) {
            *end = 0;
            ++rest;
        }
        words->addObject(Owned<GPString>::adopt(new GPString(word)).get());
        word = const_cast<char*>(skipws(rest));
    }
    return words;
}
