#include "lab/CheckedProgram.h"

#include "lab/Policy.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

namespace lab {

std::string checkedProgram(const std::string& path) {
    if (path.empty()) return {};
    const std::unique_ptr<char, void (*)(void*)> whole(realpath(path.c_str(), nullptr), std::free);
    std::ifstream file(path, std::ios::binary);
    std::uint32_t words[2] = {};
    if (!whole || !file.read(reinterpret_cast<char*>(words), sizeof words))
        throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
    constexpr std::uint32_t machO64 = 0xfeedfacf, x86_64 = 0x01000007;
    if (words[0] != machO64 || words[1] != x86_64)
        throw InputError(fmt::format("{}: it is no Mach-O file for x86-64", path));
    return whole.get();
}

} // namespace lab
