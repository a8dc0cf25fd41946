#include "support/ProgramSymbols.h"

#include "support/TemporaryFolder.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace testsupport {
namespace {

std::uintptr_t baseAddress() {
    Dl_info program{};
    if (!dladdr(reinterpret_cast<void*>(&baseAddress), &program)) throw std::runtime_error("no base address");
    return reinterpret_cast<std::uintptr_t>(program.dli_fbase);
}

// Calls `take` with address, kind and name of each symbol. Kinds are lower case, whether local or not.
template <class Take>
void readSymbols(Take take) {
    const std::uintptr_t base = baseAddress();
    const std::string command = "nm --demangle '/proc/" + std::to_string(getpid()) + "/exe'";
    const std::unique_ptr<FILE, int (*)(FILE*)> table(popen(command.c_str(), "r"), pclose);
    char line[4096];
    while (table && std::fgets(line, sizeof line, table.get())) {
        unsigned long address = 0;
        char kind = 0;
        int behind = 0;
        if (std::sscanf(line, "%lx %c %n", &address, &kind, &behind) < 2) continue;
        std::string name = line + behind;
        name.erase(std::min(name.find('\n'), name.size()));
        take(base + address, static_cast<char>(kind | 0x20), name);
    }
}

std::string withoutScope(const std::string& name) {
    const std::size_t scope = name.rfind("::");
    return scope == std::string::npos ? name : name.substr(scope + 2);
}

// The Mac's compilers put a line in front of every symbol.
std::string plainName(const char* symbol) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(
        abi::__cxa_demangle(*symbol == '_' ? symbol + 1 : symbol, nullptr, nullptr, &status), std::free);
    std::string name = text ? text.get() : symbol;
    name.erase(std::min(name.rfind('('), name.size()));
    return withoutScope(name);
}

} // namespace

// "(anonymous namespace)::threadBody(void*)" becomes "threadBody".
std::map<std::uintptr_t, std::string> programFunctions() {
    std::map<std::uintptr_t, std::string> functions;
    readSymbols([&](std::uintptr_t address, char kind, std::string name) {
        if (kind != 't') return;
        name.erase(std::min(name.rfind('('), name.size()));
        functions[address] = withoutScope(name);
    });
    return functions;
}

// Each symbol of LC_SYMTAB that lies in a section: nlist_64 of <mach-o/nlist.h>.
std::map<std::uintptr_t, std::string> macProgramFunctions(const std::string& path) {
    constexpr std::uint64_t header = 0x100000000;
    const std::string file = readAll(path);
    const auto number = [&](std::size_t at, std::size_t size) {
        std::uint64_t value = 0;
        std::memcpy(&value, &file.at(at), size);
        return value;
    };
    std::map<std::uintptr_t, std::string> functions;
    std::size_t command = 32;
    for (std::uint64_t left = number(16, 4); left > 0; --left, command += number(command + 4, 4)) {
        if (number(command, 4) != 2) continue; // LC_SYMTAB
        const std::size_t texts = number(command + 16, 4);
        for (std::uint64_t i = 0; i < number(command + 12, 4); ++i) {
            const std::size_t symbol = number(command + 8, 4) + i * 16;
            const bool isInSection = (number(symbol + 4, 1) & 0xee) == 0x0e; // and is no note for a debugger
            if (isInSection)
                functions[number(symbol + 8, 8) - header] = plainName(&file.at(texts + number(symbol, 4)));
        }
    }
    return functions;
}

std::uintptr_t programVariable(const std::string& name) {
    std::uintptr_t found = 0;
    int count = 0;
    readSymbols([&](std::uintptr_t address, char kind, const std::string& symbol) {
        if ((kind != 'b' && kind != 'd' && kind != 'r') || withoutScope(symbol) != name) return;
        found = address;
        ++count;
    });
    if (count != 1) throw std::runtime_error(std::to_string(count) + " variables are named " + name);
    return found;
}

} // namespace testsupport
