#include "platform/linux/HardwareUuid.h"

#include <cctype>
#include <cstdio>

namespace platform {
namespace {

// The first line of a file as 32 upper-case hexadecimal digits, its hyphens left out; empty for anything else.
std::string readDigits(const char* path) {
    std::FILE* file = std::fopen(path, "re");
    if (!file) return {};
    char line[64] = "";
    const bool read = std::fgets(line, sizeof line, file) != nullptr;
    std::fclose(file);
    std::string digits;
    for (const char* at = line; read && *at != '\0' && *at != '\n'; ++at) {
        if (*at == '-') continue;
        if (!std::isxdigit(static_cast<unsigned char>(*at))) return {};
        digits += static_cast<char>(std::toupper(static_cast<unsigned char>(*at)));
    }
    return digits.size() == 32 ? digits : std::string();
}

bool isPlaceholder(const std::string& digits) {
    return digits.find_first_not_of(digits.front()) == std::string::npos;
}

} // namespace

std::string hardwareUuid(const char* productFile, const char* machineFile) {
    std::string digits = readDigits(productFile);
    if (digits.empty() || isPlaceholder(digits)) digits = readDigits(machineFile);
    if (digits.empty()) return {};
    for (std::size_t hyphen : {8u, 13u, 18u, 23u})
        digits.insert(hyphen, 1, '-');
    return digits;
}

} // namespace platform
