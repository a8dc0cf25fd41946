#include "machost/world/Machine.h"

#include "machost/world/World.h"

#include <netdb.h>
#include <pwd.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <fstream>

namespace machost::world {
namespace {

// 32 hexadecimal digits of a file's first line in the usual form. Nothing for another line, or one of one digit alone,
// which makers of boards leave where they know no better.
std::optional<std::string> uuidIn(const char* path) {
    std::ifstream file(path);
    std::string line, digits;
    std::getline(file, line);
    for (const char character : line)
        if (character != '-')
            digits += static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    if (digits.size() != 32 || digits.find_first_not_of("0123456789ABCDEF") != std::string::npos)
        return std::nullopt;
    if (digits.find_first_not_of(digits[0]) == std::string::npos) return std::nullopt;
    for (const std::size_t hyphen : {8u, 13u, 18u, 23u})
        digits.insert(hyphen, 1, '-');
    return digits;
}

std::optional<std::string> ownHostName() {
    char name[HOST_NAME_MAX + 1] = "";
    if (gethostname(name, sizeof name) != 0 || !name[0]) return std::nullopt;
    addrinfo wanted{};
    wanted.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    std::string full = name;
    if (getaddrinfo(name, nullptr, &wanted, &found) == 0 && found) {
        if (found->ai_canonname) full = found->ai_canonname;
        freeaddrinfo(found);
    }
    return full;
}

std::string ownHome() {
    char room[16384];
    passwd account{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &account, room, sizeof room, &found) == 0 && found) return found->pw_dir;
    return "/";
}

std::optional<std::string> firstWord(const Answer& answer) {
    if (answer.kind == Answer::no || answer.words.empty()) return std::nullopt;
    return answer.words[0];
}

} // namespace

std::optional<std::string> platformUuid() {
    const Answer answer = ask({"platform-uuid"});
    if (answer.kind != Answer::real) return firstWord(answer);
    const auto board = uuidIn("/sys/class/dmi/id/product_uuid");
    return board ? board : uuidIn("/etc/machine-id");
}

std::optional<std::string> hostName() {
    const Answer answer = ask({"host-name"});
    return answer.kind == Answer::real ? ownHostName() : firstWord(answer);
}

std::string homeDirectory() {
    const Answer answer = ask({"home"});
    return answer.kind == Answer::real ? ownHome() : firstWord(answer).value_or("/");
}

} // namespace machost::world
