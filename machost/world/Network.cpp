#include "machost/world/Network.h"

#include "machost/world/Interfaces.h"
#include "machost/world/World.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>

namespace machost::world {
namespace {

std::optional<Host> resolve(const std::string& name, int family) {
    std::vector<char> room(1024);
    hostent entry{};
    hostent* found = nullptr;
    int problem = 0;
    while (gethostbyname2_r(name.c_str(), family, &entry, room.data(), room.size(), &found, &problem) ==
           ERANGE)
        room.resize(room.size() * 2);
    if (!found) return std::nullopt;
    Host host;
    host.name = found->h_name;
    for (char** alias = found->h_aliases; *alias; ++alias)
        host.aliases.emplace_back(*alias);
    for (char** address = found->h_addr_list; *address; ++address)
        host.addresses.emplace_back(*address, static_cast<std::size_t>(found->h_length));
    return host;
}

// The played answer: the official name, then addresses as text.
std::optional<Host> playedHost(const Words& words, int family) {
    Host host;
    for (std::size_t i = 1; i < words.size(); ++i) {
        char address[sizeof(in6_addr)];
        if (inet_pton(family, words[i].c_str(), address) != 1) continue;
        host.addresses.emplace_back(address, family == AF_INET6 ? sizeof(in6_addr) : sizeof(in_addr));
    }
    if (host.addresses.empty()) return std::nullopt;
    host.name = words[0];
    return host;
}

// Bytes as pairs of hexadecimal digits.
std::string bytesOf(const std::string& digits) {
    std::string bytes;
    if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        endOverNonsense(digits);
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

} // namespace

std::optional<Host> lookUp(const std::string& name, int family) {
    const Answer answer = ask({"host", name, family == AF_INET6 ? "6" : "4"});
    if (answer.kind == Answer::real) return resolve(name, family);
    if (answer.kind == Answer::no || answer.words.empty()) return std::nullopt;
    return playedHost(answer.words, family);
}

std::string interfaceEntries() {
    const Answer answer = ask({"interfaces"});
    if (answer.kind == Answer::real) return machineInterfaces();
    return answer.words.empty() ? std::string() : bytesOf(answer.words[0]);
}

} // namespace machost::world
