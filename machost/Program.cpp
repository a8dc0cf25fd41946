#include "machost/Program.h"

#include "machost/Imports.h"
#include "machost/Settings.h"
#include "machost/foundation/Information.h"
#include "machost/iokit/Library.h"
#include "machost/libsystem/Signals.h"
#include "machost/loader/Image.h"
#include "machost/loader/MissingImports.h"
#include "machost/loader/ThreadVariables.h"
#include "machost/loader/Unwinding.h"
#include "machost/objc/Runtime.h"
#include "machost/objects/Object.h"
#include "machost/world/ThreadNotes.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace machost {
namespace {

// What dyld hands an initialiser behind the words of main.
struct ProgramVariables {
    const void* header;
    int* argc;
    char*** argv;
    char*** environment;
    const char** name;
};

using Initialiser = void (*)(int, char**, char**, char**, const ProgramVariables*);
using Main = int (*)(int, char**, char**, char**);

std::vector<std::uint8_t> readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the C library of Linux keeps the text for each thread
    if (!file) throw std::runtime_error(std::strerror(errno));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::uint64_t resolve(const Bind& bind, const std::string& library) {
    const Import* import = findImport(library, bind.symbol);
    if (import) return reinterpret_cast<std::uint64_t>(import->address);
    return bind.weakImport ? 0 : missingImport(bind.symbol, library);
}

// The program's own functions that run in front of main, by the addresses that the file gives them.
std::vector<std::uint64_t> initialiserAddresses(const Image& image) {
    std::vector<std::uint64_t> found;
    for (const Section* section : image.file().sectionsOfType(format::initialiserPointers)) {
        const std::uint64_t count = section->size / sizeof(std::uint64_t);
        const auto* pointer = image.records<const std::uint64_t>(section->address, count);
        for (std::uint64_t i = 0; i < count; ++i)
            found.push_back(pointer[i] - image.here(0));
    }
    for (const Section* section : image.file().sectionsOfType(format::initialiserOffsets)) {
        const std::uint64_t count = section->size / sizeof(std::uint32_t);
        const auto* offset = image.records<const std::uint32_t>(section->address, count);
        for (std::uint64_t i = 0; i < count; ++i)
            found.push_back(image.file().headerAddress() + offset[i]);
    }
    return found;
}

std::vector<Initialiser> initialisers(const Image& image) {
    std::vector<Initialiser> found;
    for (const std::uint64_t address : initialiserAddresses(image)) {
        if (!image.file().allows(address, 1, format::protectionExecute))
            throw FormatError("an initialiser lies outside its code");
        found.push_back(reinterpret_cast<Initialiser>(image.here(address)));
    }
    return found;
}

// In a played world standard output goes out line by line, so that whoever plays it sees what the program says.
void prepareOutput() {
    if (!settings().world.empty()) std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

pid_t programProcess = 0;

// Runs behind all that the program has its own end do. A forked child has objects of threads that it has not, and an
// end in a signal's handler comes on top of whoever still holds some.
void checkCounts() {
    if (getpid() != programProcess || libsystem::isInsideHandler()) return;
    const int left = reportLeaks() + iokit::reportLeaks();
    if (left == 0 || settings().world.empty()) return;
    std::fflush(nullptr);
    _exit(leakStatus);
}

} // namespace

void runProgram(const std::string& path, int argc, char** argv) {
    // The file and the image stay as long as the process, one that ends before the program runs included.
    static const auto& file = *new MachOFile(readFile(path));
    static const auto& image = *new Image(file, resolve);
    installThreadVariables(image);
    installUnwinding(image);
    objc::registerImage(image);
    foundation::readInformation(image);
    const std::vector<Initialiser> first = initialisers(image);

    world::setProgramHeader(image.at<const void>(file.headerAddress()));
    prepareOutput();
    programProcess = getpid();
    std::atexit(checkCounts);

    const std::string executable = "executable_path=" + path;
    std::vector<char> appleText(executable.c_str(), executable.c_str() + executable.size() + 1);
    char* apple[] = {appleText.data(), nullptr};
    const char* name = argv[0];
    const ProgramVariables variables{image.at<const void>(file.headerAddress()), &argc, &argv, &environ,
                                     &name};
    for (const Initialiser initialise : first)
        initialise(argc, argv, environ, apple, &variables);
    const auto start = reinterpret_cast<Main>(image.here(file.entry()));
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the end of a main, threads or not
    std::exit(start(argc, argv, environ, apple));
}

} // namespace machost
