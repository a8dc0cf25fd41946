#include "support/ProgramSymbols.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
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
