#include "machost/loader/MissingImports.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <stdexcept>
#include <vector>

namespace machost {
namespace {

constexpr std::uint64_t roomForEach = 4096;
constexpr std::uint64_t capacity = 4096;

std::uint64_t firstAddress = 0;
std::vector<std::string>& messages() {
    static auto& all = *new std::vector<std::string>;
    return all;
}

// Another fault keeps its usual end: it comes again once the handler is gone.
void onFault(int number, siginfo_t* information, void*) {
    const auto address = reinterpret_cast<std::uint64_t>(information->si_addr);
    const std::uint64_t index = (address - firstAddress) / roomForEach;
    if (address < firstAddress || index >= messages().size()) {
        signal(number, SIG_DFL);
        return;
    }
    const std::string& message = messages()[index];
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, message.data(), message.size());
    _exit(missingImportStatus);
}

void reserve() {
    void* room =
        mmap(nullptr, capacity * roomForEach, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (room == MAP_FAILED) throw std::runtime_error("there is no room for missing imports");
    firstAddress = reinterpret_cast<std::uint64_t>(room);
    struct sigaction action {};
    action.sa_sigaction = onFault;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, nullptr);
}

} // namespace

std::uint64_t missingImport(const std::string& symbol, const std::string& library) {
    static auto& known = *new std::map<std::string, std::uint64_t>;
    const std::string name = symbol + (library.empty() ? "" : " of " + library);
    const auto found = known.find(name);
    if (found != known.end()) return found->second;
    if (firstAddress == 0) reserve();
    if (messages().size() == capacity) throw std::runtime_error("too many imports are missing");
    const std::uint64_t address = firstAddress + messages().size() * roomForEach;
    messages().push_back("machost: nothing plays " + name + "\n");
    return known[name] = address;
}

} // namespace machost
